// Everything that the services ask of the machine, in one value. `main.cpp` builds it of real parts, the
// tests of fakes on a virtual clock. All of it outlives every service.
#pragma once

namespace tessary {

class Clock;
class Log;
class MIDIOutput;
class Preferences;
class Random;
class ServiceDiscovery;
class TimerQueue;
class UDPNetwork;

struct Platform {
    TimerQueue& mainQueue;
    UDPNetwork& network;
    ServiceDiscovery& serviceDiscovery;
    MIDIOutput& midiOutput;
    Preferences& preferences;
    const Clock& clock;
    Random& random;
    Log& log;
};

} // namespace tessary
