// Builds the platform and runs the application: the only place that chooses implementations.

#include "AppDelegate.h"
#include "Platform/asio/AsioNetwork.h"
#include "Platform/avahi/AvahiDiscovery.h"
#include "Platform/jack/JackOutput.h"
#include "Platform/posix/StandardOutputLog.h"
#include "Platform/posix/SystemClock.h"
#include "Platform/posix/SystemRandom.h"
#include "Platform/qt/JSONPreferences.h"
#include "Platform/qt/QtApplication.h"
#include "Platform/qt/QtMainQueue.h"

#include <unistd.h>

int main(int, char** argv) {
    using namespace tessary;

    QtApplication app(argv[0]); // takes the signals, so it comes before every thread
    StandardOutputLog log(STDOUT_FILENO);
    QtMainQueue mainQueue;
    AsioNetwork network{RTPMIDISession::controlLocalPort, RTPMIDISession::dataLocalPort};
    AvahiDiscovery serviceDiscovery(mainQueue);
    JackOutput midiOutput;
    JSONPreferences preferences(JSONPreferences::defaultPath());
    const SystemClock clock;
    SystemRandom random;

    AppDelegate delegate(
        Platform{mainQueue, network, serviceDiscovery, midiOutput, preferences, clock, random, log});
    return app.run([&] { delegate.applicationDidFinishLaunching(); },
                   [&] {
                       delegate.applicationWillTerminate();
                       network.stop(); // nothing arrives any more while the rest comes down
                   });
}
