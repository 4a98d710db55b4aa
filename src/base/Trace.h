// All lines that tell what a camera's class does pass through here; they come out at the log's level `trace`. Callable from
// every thread; arguments are evaluated only then.
#pragma once
#include "base/Log.h"

#define TraceLine(...) KOV_LOG(Trace, __VA_ARGS__)
