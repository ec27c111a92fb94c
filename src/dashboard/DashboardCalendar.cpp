#include "dashboard/DashboardCalendar.h"

#include <glib.h>

namespace velko {

namespace {

GTimeZone* zoneOf(const std::shared_ptr<void>& zone) { return static_cast<GTimeZone*>(zone.get()); }

std::shared_ptr<void> holdZone(GTimeZone* zone) {
    return std::shared_ptr<void>(zone, [](void* z) { g_time_zone_unref(static_cast<GTimeZone*>(z)); });
}

gint64 unixSeconds(SystemTime instant) {
    return std::chrono::floor<std::chrono::seconds>(instant.time_since_epoch()).count();
}

}  // namespace

DashboardCalendar DashboardCalendar::local() { return DashboardCalendar(holdZone(g_time_zone_new_local())); }

std::optional<DashboardCalendar> DashboardCalendar::forZone(std::string_view identifier) {
    std::string text(identifier);
    GTimeZone* zone = g_time_zone_new_identifier(text.c_str());
    if (!zone) return std::nullopt;
    return DashboardCalendar(holdZone(zone));
}

std::chrono::seconds DashboardCalendar::offsetAt(SystemTime instant) const {
    GTimeZone* zone = zoneOf(m_zone);
    int interval = g_time_zone_find_interval(zone, G_TIME_TYPE_UNIVERSAL, unixSeconds(instant));
    if (interval < 0) return std::chrono::seconds(0);
    return std::chrono::seconds(g_time_zone_get_offset(zone, interval));
}

CivilDate DashboardCalendar::localDate(SystemTime instant) const {
    auto local = std::chrono::floor<std::chrono::seconds>(instant) + offsetAt(instant);
    return CivilDate{std::chrono::floor<std::chrono::days>(local)};
}

std::optional<SystemTime> DashboardCalendar::startOfDay(CivilDate date) const {
    if (!date.ok()) return std::nullopt;
    GDateTime* midnight = g_date_time_new(zoneOf(m_zone), int(date.year()), int(unsigned(date.month())),
                                          int(unsigned(date.day())), 0, 0, 0);
    if (!midnight) return std::nullopt;
    // GLib moves a midnight that daylight saving skips forward to the first
    // instant that exists, which is where such a day begins.
    SystemTime start = std::chrono::system_clock::from_time_t(time_t(g_date_time_to_unix(midnight)));
    g_date_time_unref(midnight);
    // Where the clock goes back across midnight, GLib takes the later of two
    // midnights; the day begins at the earlier one, an offset change before.
    auto earlier = start - (offsetAt(start - std::chrono::seconds(1)) - offsetAt(start));
    if (earlier < start && localDate(earlier) == date) return earlier;
    return start;
}

CivilDate addingDays(CivilDate date, int days) {
    return CivilDate{std::chrono::sys_days(date) + std::chrono::days(days)};
}

SystemTime utcMidnight(CivilDate date) {
    return std::chrono::time_point_cast<SystemTime::duration>(std::chrono::sys_days(date));
}

}  // namespace velko
