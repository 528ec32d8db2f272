#include "Platform/qt/Display.h"

#include "Platform/system/OpenFile.h"
#include "Platform/system/Thread.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <xcb/xcb.h>

namespace tessary {

namespace {

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

/// Sets the Qt platform plugins to try: those of the available displays, then "offscreen", with which the
/// program runs without showing anything. X11 comes first, because it lets the program end its sessions when
/// the display server dies: when a Wayland connection is lost, Qt ends the process at once. A value that the
/// user has set is kept.
///
/// Also selects Qt's built-in style. A desktop theme would load its whole toolkit, 14 MB, for one menu that
/// most panels draw themselves, and GTK also ends the process at once when the display server dies.
void choosePlatform() {
    std::string platforms;
    if (!variable("DISPLAY").empty()) platforms += "xcb;";
    if (!variable("WAYLAND_DISPLAY").empty()) platforms += "wayland;";
    setenv("QT_QPA_PLATFORM", (platforms + "offscreen").c_str(), 0);
    setenv("XDG_CURRENT_DESKTOP", "X-Generic", 1);
    unsetenv("QT_QPA_PLATFORMTHEME");
}

void awaitX11() {
    xcb_disconnect(xcb_connect(nullptr, nullptr));
}

/// Sends wl_display.sync (object 1, opcode 0, identifier of a callback) and waits for the first reply.
void awaitWayland() {
    std::string path = variable("WAYLAND_DISPLAY");
    if (!path.starts_with('/')) path = variable("XDG_RUNTIME_DIR") + "/" + path;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const OpenFile compositor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (path.size() >= sizeof address.sun_path) return;
    std::ranges::copy(path, address.sun_path);
    if (connect(compositor.file(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
    constexpr std::array<std::uint32_t, 3> sync{1, 12 << 16, 2};
    std::uint32_t answer = 0;
    if (send(compositor.file(), sync.data(), sizeof sync, MSG_NOSIGNAL) == sizeof sync)
        recv(compositor.file(), &answer, sizeof answer, 0);
}

} // namespace

void Display::ask(EventLoop& loop, const std::function<void()>& answered) {
    choosePlatform();
    const std::string platform = variable("QT_QPA_PLATFORM");
    const auto await = platform.starts_with("xcb") && !variable("DISPLAY").empty() ? awaitX11
                       : platform.starts_with("wayland")                           ? awaitWayland
                                                                                   : nullptr;
    const bool isAsked = await && startDetachedThread("tessary-display", [&loop, await, answered] {
                             await();
                             loop.post(answered);
                         });
    if (!isAsked) answered();
}

} // namespace tessary
