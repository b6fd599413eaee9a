// Prints the SDK prefix seen by whichever libnimiob-wz.so the loader picked.
#include <wz/path.h>

#include <cstdio>

int main()
{
    std::printf("%s\n", wz::path::sdkPrefix().c_str());
    return 0;
}
