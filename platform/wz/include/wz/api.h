#pragma once

#define WZ_API __attribute__((visibility("default")))
