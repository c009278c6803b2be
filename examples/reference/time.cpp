// A time: moved, measured and shown.

#include "SqlCommon.h"

#include <cstdio>

int main()
{
    //! [time]
    sql::Time start(86399); // a second before the second day
    sql::Time end = start;
    end.addMinutes(1);
    const sql::string text = end.format("%d.%m. %H:%M:%S");
    std::printf("%.0f s later: %s\n", end.diff(start), text.c_str());
    // -> 60 s later: 02.01. 00:00:59
    if (end.asInteger() != start.asInteger()) // they are equal by ==
        std::printf("another time\n");
    // -> another time
    //! [time]
}
