#pragma once

// Marks what an application may reach from outside the library.
#define NIMIOB_EXPORT __attribute__((visibility("default")))
