#include "Platform/realtime/RealtimeKit.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <systemd/sd-bus.h>

namespace tessary {

namespace {

constexpr const char* service = "org.freedesktop.RealtimeKit1"; // also the name of its interface
constexpr const char* object = "/org/freedesktop/RealtimeKit1";

} // namespace

bool askRealtimeKit(pid_t thread, int priority,
                    const std::function<bool(std::chrono::microseconds)>& limitRunTime) {
    sd_bus* opened = nullptr;
    if (sd_bus_open_system(&opened) < 0) return false;
    const std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus(opened, sd_bus_close_unref);

    const auto hasRead = [&](const char* property, char type, void* value) {
        return sd_bus_get_property_trivial(bus.get(), service, object, service, property, nullptr, type,
                                           value) >= 0;
    };
    std::int64_t maxRunTime = 0; // in microseconds
    std::int32_t maxPriority = 0;
    if (!hasRead("RTTimeUSecMax", SD_BUS_TYPE_INT64, &maxRunTime) ||
        !hasRead("MaxRealtimePriority", SD_BUS_TYPE_INT32, &maxPriority))
        return false;
    if (maxRunTime <= 0 || maxPriority <= 0 || !limitRunTime(std::chrono::microseconds(maxRunTime)))
        return false;
    return sd_bus_call_method(bus.get(), service, object, service, "MakeThreadRealtime", nullptr, nullptr,
                              "tu", static_cast<std::uint64_t>(thread),
                              static_cast<std::uint32_t>(std::min(priority, maxPriority))) >= 0;
}

} // namespace tessary
