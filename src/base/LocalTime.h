// A moment on the host's wall clock.
#pragma once

namespace platform {

struct LocalTime {
    int iYear, iMonth, iDay, iHour, iMinute, iSecond, iMillisecond;
};

}  // namespace platform
