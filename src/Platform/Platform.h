// Everything that the services need from the machine, in one value. `main.cpp` builds it of real parts, the
// tests of fakes on a virtual clock. All of it outlives every service.
#pragma once

namespace tessary {

class Application;
class Clock;
class Log;
class LoginService;
class MIDIOutput;
class Preferences;
class Random;
class ServiceDiscovery;
class StatusBar;
class Text;
class TimerQueue;
class UDPNetwork;

struct Platform {
    Application& application;
    TimerQueue& mainQueue;
    UDPNetwork& network;
    ServiceDiscovery& serviceDiscovery;
    MIDIOutput& midiOutput;
    Preferences& preferences;
    StatusBar& statusBar;
    LoginService& loginService;
    const Clock& clock;
    Random& random;
    const Text& text;
    Log& log;
};

} // namespace tessary
