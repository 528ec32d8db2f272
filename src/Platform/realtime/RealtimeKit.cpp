#include "Platform/realtime/RealtimeKit.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <dbus/dbus.h>
#include <memory>
#include <optional>

namespace tessary {

namespace {

constexpr const char* service = "org.freedesktop.RealtimeKit1";
constexpr const char* object = "/org/freedesktop/RealtimeKit1";

/// The service may have to be started for the question.
constexpr int patienceMilliseconds = 5'000;

using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

/// A connection of our own to the system bus.
///
/// The library's calls for the well-known buses hold a lock of the whole process until the bus has answered,
/// and with it Qt's and Avahi's connections to other buses. So this one greets the bus itself.
class SystemBus {
  public:
    SystemBus()
        : connection_(dbus_connection_open_private(address(), nullptr)) {
        if (!connection_) return;
        const Message greeting{
            dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"),
            dbus_message_unref};
        isConnected_ = answer(greeting) != nullptr;
    }
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;
    ~SystemBus() {
        if (!connection_) return;
        dbus_connection_close(connection_);
        dbus_connection_unref(connection_);
    }

    bool isConnected() const { return isConnected_; }

    static Message call(const char* interface, const char* method) {
        return {dbus_message_new_method_call(service, object, interface, method), dbus_message_unref};
    }

    /// The answer; null if there is none, or an error instead.
    Message answer(const Message& call) const {
        return {
            dbus_connection_send_with_reply_and_block(connection_, call.get(), patienceMilliseconds, nullptr),
            dbus_message_unref};
    }

    /// A property that is a number, of 32 or 64 bits.
    std::optional<std::int64_t> number(const char* property) const {
        const Message question = call(DBUS_INTERFACE_PROPERTIES, "Get");
        dbus_message_append_args(question.get(), DBUS_TYPE_STRING, &service, DBUS_TYPE_STRING, &property,
                                 DBUS_TYPE_INVALID);
        const Message reply = answer(question);
        DBusMessageIter variant;
        DBusMessageIter value;
        if (!reply || !dbus_message_iter_init(reply.get(), &variant) ||
            dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_VARIANT)
            return std::nullopt;
        dbus_message_iter_recurse(&variant, &value);
        DBusBasicValue number{};
        switch (dbus_message_iter_get_arg_type(&value)) {
        case DBUS_TYPE_INT32:
            dbus_message_iter_get_basic(&value, &number);
            return number.i32;
        case DBUS_TYPE_INT64:
            dbus_message_iter_get_basic(&value, &number);
            return number.i64;
        default:
            return std::nullopt;
        }
    }

  private:
    static const char* address() {
        const char* configured = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
        return configured ? configured : "unix:path=/run/dbus/system_bus_socket";
    }

    DBusConnection* const connection_;
    bool isConnected_ = false;
};

} // namespace

bool askRealtimeKit(pid_t thread, int priority,
                    const std::function<bool(std::chrono::microseconds)>& limitRunTime) {
    const SystemBus bus;
    if (!bus.isConnected()) return false;
    const auto longestRun = bus.number("RTTimeUSecMax");
    const auto highest = bus.number("MaxRealtimePriority");
    if (longestRun.value_or(0) <= 0 || highest.value_or(0) <= 0 ||
        !limitRunTime(std::chrono::microseconds(*longestRun)))
        return false;
    const Message question = SystemBus::call(service, "MakeThreadRealtime");
    const auto threadArgument = static_cast<dbus_uint64_t>(thread);
    const auto priorityArgument = static_cast<dbus_uint32_t>(std::min<std::int64_t>(priority, *highest));
    dbus_message_append_args(question.get(), DBUS_TYPE_UINT64, &threadArgument, DBUS_TYPE_UINT32,
                             &priorityArgument, DBUS_TYPE_INVALID);
    return bus.answer(question) != nullptr;
}

} // namespace tessary
