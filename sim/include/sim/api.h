#pragma once

#define SIM_API __attribute__((visibility("default")))
