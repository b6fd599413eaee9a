#pragma once

#include <vx/api.h>

#include <exception>
#include <string>

namespace VX {

// Every failure of a value conversion or of a proxy call. The text says what
// failed and why; for remote failures it carries the framework's own text.
class VX_API VXError : public std::exception
{
public:
    explicit VXError(std::string text);
    ~VXError() override;
    const char *what() const noexcept override;
    const std::string &text() const { return m_text; }

private:
    std::string m_text;
};

} // namespace VX
