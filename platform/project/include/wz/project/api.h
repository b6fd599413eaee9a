#pragma once

#define WZPROJECT_API __attribute__((visibility("default")))
