// A moment on the host's wall clock.
#pragma once

namespace platform {

struct LocalTime {
    int year, month, day, hour, minute, second, millisecond;
};

}  // namespace platform
