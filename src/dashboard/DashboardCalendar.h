#pragma once
// DashboardCalendar: the user's days. A Gregorian calendar in one time zone,
// over the platform's zone database (GLib's GTimeZone), because the
// standard library of our compiler has no time zones. It answers the two
// questions the dashboard asks: which local day an instant falls on, and
// when a local day begins (the first instant of it, which is not always
// midnight: a day whose midnight is skipped by daylight saving begins at 1:00).
//
// Days are counted as civil dates, so adding days across a change of offset
// still moves one calendar day at a time. An immutable value: copies share the
// zone, and any thread may use it.

#include <chrono>
#include <memory>
#include <optional>
#include <string_view>

#include "core/Time.h"

namespace velko {

using CivilDate = std::chrono::year_month_day;

class DashboardCalendar {
public:
    // The zone of the process (TZ, /etc/localtime).
    static DashboardCalendar local();
    // "Europe/Berlin", "UTC"; nothing for an identifier the zone database lacks.
    static std::optional<DashboardCalendar> forZone(std::string_view identifier);

    CivilDate localDate(SystemTime instant) const;
    // The first instant of `date` in this zone; nothing if the date is invalid.
    std::optional<SystemTime> startOfDay(CivilDate date) const;
    std::optional<SystemTime> startOfDay(SystemTime instant) const { return startOfDay(localDate(instant)); }
    // The offset from UTC at `instant`.
    std::chrono::seconds offsetAt(SystemTime instant) const;

private:
    explicit DashboardCalendar(std::shared_ptr<void> zone) : m_zone(std::move(zone)) {}
    std::shared_ptr<void> m_zone;  // GTimeZone, released with the last copy
};

// Calendar arithmetic on dates, independent of any zone.
CivilDate addingDays(CivilDate date, int days);
// Midnight of `date` in UTC: a date a client reads back unchanged with UTC getters.
SystemTime utcMidnight(CivilDate date);

}  // namespace velko
