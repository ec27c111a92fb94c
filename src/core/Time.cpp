#include "core/Time.h"

#include <cstdio>
#include <ctime>

namespace velko {

std::string formatIso8601(SystemTime time) {
    using namespace std::chrono;
    auto ms = time_point_cast<milliseconds>(time);
    auto secs = time_point_cast<seconds>(ms);
    if (secs > ms) secs -= seconds(1);  // floor for times before the epoch
    auto millis = (ms - secs).count();
    std::time_t t = system_clock::to_time_t(secs);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03lldZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<long long>(millis));
    return buffer;
}

std::string iso8601Now() { return formatIso8601(std::chrono::system_clock::now()); }

bool readFixedDigits(std::string_view s, size_t pos, size_t count, int& out) {
    if (pos + count > s.size()) return false;
    out = 0;
    for (size_t i = 0; i < count; ++i) {
        char c = s[pos + i];
        if (c < '0' || c > '9') return false;
        out = out * 10 + (c - '0');
    }
    return true;
}

std::optional<SystemTime> parseIso8601(std::string_view s) {
    int year, month, day, hour, minute, second;
    if (!readFixedDigits(s, 0, 4, year) || s.size() < 19 || s[4] != '-' || !readFixedDigits(s, 5, 2, month) ||
        s[7] != '-' || !readFixedDigits(s, 8, 2, day) || s[10] != 'T' || !readFixedDigits(s, 11, 2, hour) ||
        s[13] != ':' || !readFixedDigits(s, 14, 2, minute) || s[16] != ':' || !readFixedDigits(s, 17, 2, second))
        return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return std::nullopt;
    size_t pos = 19;
    long long nanos = 0;
    if (pos < s.size() && s[pos] == '.') {
        ++pos;
        size_t start = pos;
        long long scale = 100000000;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
            nanos += (s[pos] - '0') * scale;
            scale /= 10;
            ++pos;
        }
        if (pos == start) return std::nullopt;
    }
    long offsetSeconds = 0;
    if (pos < s.size() && s[pos] == 'Z') {
        ++pos;
    } else if (pos < s.size() && (s[pos] == '+' || s[pos] == '-')) {
        int oh, om;
        int sign = s[pos] == '-' ? -1 : 1;
        if (!readFixedDigits(s, pos + 1, 2, oh) || pos + 3 >= s.size() || s[pos + 3] != ':' ||
            !readFixedDigits(s, pos + 4, 2, om))
            return std::nullopt;
        offsetSeconds = sign * (oh * 3600L + om * 60L);
        pos += 6;
    } else {
        return std::nullopt;
    }
    if (pos != s.size()) return std::nullopt;
    using namespace std::chrono;
    auto date = year_month_day{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                               std::chrono::day{static_cast<unsigned>(day)}};
    if (!date.ok()) return std::nullopt;
    auto tp = sys_days{date} + hours{hour} + minutes{minute} + seconds{second} - seconds{offsetSeconds};
    return time_point_cast<system_clock::duration>(tp + nanoseconds{nanos});
}

}  // namespace velko
