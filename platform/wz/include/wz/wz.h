#pragma once

#include <wz/any_value.h>
#include <wz/future.h>
#include <wz/log.h>
#include <wz/object.h>
#include <wz/object_builder.h>
#include <wz/session.h>
#include <wz/signal.h>
#include <wz/url.h>
