#pragma once

#define VX_API __attribute__((visibility("default")))
