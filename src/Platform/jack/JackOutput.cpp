#include "Platform/jack/JackOutput.h"

#include "Platform/jack/CycleTime.h"
#include "Platform/jack/JackLibrary.h"
#include "Platform/jack/MIDIRing.h"
#include "Platform/realtime/RealTimePriority.h"
#include "Platform/system/Thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <system_error>
#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

constexpr MIDIObjectRef clientRef = 1;
constexpr MIDIObjectRef sourceRef = 2;

/// The largest event that fits into the port buffers of JACK (8,192 samples of four bytes, less their head).
constexpr std::size_t longestMessage = 32'720;
/// Thirty of the longest messages, or seconds of the densest playing; a power of two.
constexpr std::size_t ringCapacity = 1 << 20;

/// How long the program's launch waits, twice, for a server that is there but does not answer. After that it
/// goes on, and the source appears when the server does answer.
constexpr auto answerLimit = 300ms;
/// How long the program's end may wait for one.
constexpr auto closeLimit = 200ms;
/// A server that restarts is heard of within this time; a failed attempt costs one refused `connect`.
constexpr auto retryInterval = 1s;

/// What is older than this at its cycle is not played any more: the server has stood still meanwhile.
constexpr std::int64_t maxAge = 1'000'000; // microseconds

void ignoreMessage(const char*) {}

std::int64_t monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000 + now.tv_nsec / 1'000;
}

/// What to add to the microseconds of the monotonic clock to get those of JACK's. The two drift apart by 80
/// in a million and more, where JACK keeps the raw monotonic clock and the other one is kept in step with the
/// network's time: nearly one period a minute. So they are compared in every cycle.
class ClockOffset {
  public:
    /// Looks at both clocks. A look that was interrupted does not count: it counts if it took no longer than
    /// the last one that did, plus what the clocks may have drifted by since.
    ///
    /// Runs on: JACK's real-time thread. Allocates: never.
    std::int64_t update(const JackLibrary& library) {
        const std::int64_t before = monotonicMicroseconds();
        const auto jack = static_cast<std::int64_t>(library.get_time());
        const std::int64_t duration = monotonicMicroseconds() - before;
        if (duration <= uncertainty_) {
            uncertainty_ = duration;
            offset_ = jack - (before + duration / 2);
        } else {
            ++uncertainty_;
        }
        return offset_;
    }

  private:
    std::int64_t offset_ = 0;
    std::int64_t uncertainty_ = INT64_MAX; ///< in microseconds
};

} // namespace

/// The link to the server; one in a process, for libjack deletes the clients of a dead server under their
/// owners' feet as soon as anybody in the process opens a new one. Its thread owns it together with the
/// output, so that it may outlive the output by the time for which a hanging server holds libjack up.
class JackOutput::Link {
  public:
    explicit Link(Log& log)
        : log_(log) {}

    /// Keeps a client, and a port if one is wanted, at the server until `close` is called. Gives up at once
    /// if there is no server at the start; later, tries again until there is one.
    ///
    /// Runs on: a thread of its own, with every signal blocked but SIGXCPU; JACK's threads inherit that.
    void run();

    // The following run on the main thread.

    /// To be called before the thread is started; answers false if there is one still.
    bool prepare(std::string_view clientName);
    /// To be called instead of starting the thread, if there can be none.
    void abandon();
    MIDIStatus awaitClient();
    MIDIStatus openPort(std::string_view name);
    void closePort();
    /// Asks the thread to end; answers whether it has, within the limit.
    bool close();

    /// Runs on: the network thread.
    void publish(std::uint64_t hostTime, std::span<const std::uint8_t> message) {
        if (message.empty() || message.size() > longestMessage) return;
        if (takesMessages_.load(std::memory_order_acquire)) ring_.push(hostTime, message);
        if (dropped_.load(std::memory_order_relaxed) != 0) reportDropped();
    }

  private:
    using Lock = std::unique_lock<std::mutex>;

    void keep(Lock& lock);
    void portFailed(Lock& lock);
    jack_status_t openClient();
    bool activatePort(const std::string& name);
    void deactivatePort();
    void closeClient();

    static int process(jack_nframes_t frames, void* link);
    static void serverLost(void* link);
    void play(jack_nframes_t frames);
    void reportDropped();

    Log& log_;
    std::string clientName_;
    const JackLibrary* jack_ = nullptr; ///< set before there is a client; null without the library
    jack_client_t* client_ = nullptr;   ///< written only while JACK does not call `process`
    std::atomic<jack_port_t*> port_{nullptr};
    ClockOffset clockOffset_;

    MIDIRing ring_{ringCapacity};
    std::atomic<bool> takesMessages_{false};
    std::size_t dropping_ = 0;            ///< messages dropped as too old in the cycles just before this one
    std::atomic<std::size_t> dropped_{0}; ///< the same, to be reported by the network thread

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by the mutex.
    std::string portName_; ///< of the port that is wanted; empty: none
    std::optional<MIDIStatus> clientStatus_;
    std::optional<MIDIStatus> portStatus_;
    bool isServerLost_ = false;
    bool isClosing_ = false;
    bool hasEnded_ = true;
};

bool JackOutput::Link::prepare(std::string_view clientName) {
    const std::lock_guard lock(mutex_);
    if (!hasEnded_) return false;
    clientName_ = clientName;
    clientStatus_.reset();
    isServerLost_ = isClosing_ = hasEnded_ = false;
    return true;
}

void JackOutput::Link::abandon() {
    const std::lock_guard lock(mutex_);
    clientStatus_ = -EAGAIN;
    hasEnded_ = true;
}

void JackOutput::Link::run() {
    stepDownWhenTold();
    jack_ = JackLibrary::load();
    if (jack_) {
        jack_->set_error_function(ignoreMessage);
        jack_->set_info_function(ignoreMessage);
    }
    const jack_status_t status = openClient();
    Lock lock(mutex_);
    const bool isLate = clientStatus_.has_value(); // the launch has gone on without us
    clientStatus_ = client_ ? 0 : status ? -static_cast<MIDIStatus>(status) : -EIO;
    changed_.notify_all();
    if (client_ || isLate) keep(lock);
    hasEnded_ = true;
    changed_.notify_all();
}

void JackOutput::Link::keep(Lock& lock) {
    // Each turn takes one step, with the mutex released, from what there is to what is wanted.
    while (!isClosing_) {
        const std::string wantedPort = portName_;
        if (client_ && isServerLost_) {
            lock.unlock();
            closeClient();
            lock.lock();
            isServerLost_ = false; // after the close no callback of the dead client can set it again
        } else if (!client_) {
            lock.unlock();
            openClient();
            lock.lock();
            if (!client_) portFailed(lock);
        } else if (!wantedPort.empty() && !port_) {
            lock.unlock();
            const bool isActive = activatePort(wantedPort);
            lock.lock();
            if (isActive) {
                portStatus_ = 0;
                changed_.notify_all();
            } else {
                isServerLost_ = true; // begin again with a new client
                portFailed(lock);
            }
        } else if (wantedPort.empty() && port_) {
            lock.unlock();
            deactivatePort();
            lock.lock();
        } else {
            changed_.wait(lock, [this] {
                return isClosing_ || isServerLost_ || portName_.empty() == (port_ != nullptr);
            });
        }
    }
    lock.unlock();
    if (client_) closeClient();
    lock.lock();
}

void JackOutput::Link::portFailed(Lock& lock) {
    if (!portStatus_) portStatus_ = -EIO;
    changed_.notify_all();
    changed_.wait_for(lock, retryInterval, [this] { return isClosing_; });
}

jack_status_t JackOutput::Link::openClient() {
    if (!jack_) return static_cast<jack_status_t>(JackFailure | JackServerFailed); // as with no server
    jack_status_t status{};
    client_ = jack_->client_open(clientName_.c_str(), JackNoStartServer, &status);
    limitRealTimeRun(); // with PipeWire's library comes a limit that kills without telling first
    if (!client_) return status;
    jack_->on_shutdown(client_, serverLost, this);
    jack_->set_process_callback(client_, process, this);
    clockOffset_ = {};
    return status;
}

bool JackOutput::Link::activatePort(const std::string& name) {
    ring_.clear(); // of what was published before the last server was known to be lost
    takesMessages_.store(true,
                         std::memory_order_release); // others may connect before the port is in our hands
    // The port comes second: a program that connected to the port of a client which is about to become active
    // could stall the server for seconds.
    if (jack_->activate(client_) == 0)
        port_ = jack_->port_register(client_, name.c_str(), JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    if (port_) return true;
    takesMessages_.store(false, std::memory_order_release);
    return false;
}

void JackOutput::Link::deactivatePort() {
    takesMessages_.store(false, std::memory_order_release);
    jack_->deactivate(client_);
    jack_->port_unregister(client_, port_.exchange(nullptr));
}

void JackOutput::Link::closeClient() {
    takesMessages_.store(false, std::memory_order_release);
    jack_->client_close(client_);
    client_ = nullptr;
    port_ = nullptr;
}

MIDIStatus JackOutput::Link::awaitClient() {
    Lock lock(mutex_);
    changed_.wait_for(lock, answerLimit, [this] { return clientStatus_.has_value(); });
    if (!clientStatus_) clientStatus_ = 0;
    return *clientStatus_;
}

MIDIStatus JackOutput::Link::openPort(std::string_view name) {
    Lock lock(mutex_);
    if (hasEnded_ || name.empty()) return -EINVAL;
    if (!portName_.empty()) return -EBUSY;
    portName_ = name;
    portStatus_.reset();
    changed_.notify_all();
    changed_.wait_for(lock, answerLimit, [this] { return portStatus_.has_value(); });
    const MIDIStatus status = portStatus_.value_or(0);
    portStatus_ = status;
    if (status != 0) portName_.clear();
    return status;
}

void JackOutput::Link::closePort() {
    takesMessages_.store(false, std::memory_order_release);
    const std::lock_guard lock(mutex_);
    portName_.clear();
    changed_.notify_all();
}

bool JackOutput::Link::close() {
    takesMessages_.store(false, std::memory_order_release);
    Lock lock(mutex_);
    portName_.clear();
    isClosing_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, closeLimit, [this] { return hasEnded_; });
}

// libjack ends its threads with asynchronous cancellation. It must not strike in the middle of our code, so
// both callbacks hold it off. Where they let it in again, the stack unwinds through them: they must not be
// noexcept, and nothing on their stack may have a destructor.

int JackOutput::Link::process(jack_nframes_t frames, void* link) {
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    static_cast<Link*>(link)->play(frames);
    pthread_setcancelstate(previous, nullptr);
    return 0;
}

void JackOutput::Link::serverLost(void* argument) {
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    const auto link = static_cast<Link*>(argument);
    link->takesMessages_.store(false, std::memory_order_release);
    link->mutex_.lock();
    link->isServerLost_ = true;
    link->mutex_.unlock();
    link->changed_.notify_all();
    pthread_setcancelstate(previous, nullptr);
}

/// Fills the port's buffer for one cycle.
///
/// Runs on: JACK's real-time thread. Allocates: never. Waits: never.
void JackOutput::Link::play(jack_nframes_t frames) {
    jack_port_t* const port = port_.load(std::memory_order_acquire);
    if (!port) return;
    void* const buffer = jack_->port_get_buffer(port, frames);
    if (buffer) jack_->midi_clear_buffer(buffer);

    jack_nframes_t cycle = 0;
    jack_time_t start = 0;
    jack_time_t next = 0;
    float period = 0;
    if (jack_->get_cycle_times(client_, &cycle, &start, &next, &period) != 0) period = 0;
    const CycleTime times{.start = static_cast<std::int64_t>(start), .period = period, .frames = frames};

    const std::int64_t clockOffset = clockOffset_.update(*jack_);
    const std::int64_t oldest = monotonicMicroseconds() - maxAge;
    const std::size_t droppedBefore = dropping_;
    jack_nframes_t frame = 0;
    while (const auto head = ring_.front()) {
        if (static_cast<std::int64_t>(head->time / 1'000) < oldest) {
            ++dropping_;
            ring_.pop(*head);
            continue;
        }
        const auto due = times.frameOf(static_cast<std::int64_t>(head->time / 1'000) + clockOffset);
        if (!due) break;
        frame = std::max(frame, *due);
        jack_midi_data_t* const to =
            buffer ? jack_->midi_event_reserve(buffer, frame, head->length) : nullptr;
        if (to)
            ring_.copyFront(*head, to);
        else if (buffer && jack_->midi_get_event_count(buffer) > 0)
            break; // the next cycle's buffer has room, or no buffer ever has
        ring_.pop(*head);
    }
    if (dropping_ == droppedBefore && dropping_ != 0) dropped_.fetch_add(std::exchange(dropping_, 0));
}

void JackOutput::Link::reportDropped() {
    log_.line("[CoreMIDI] dropped " + std::to_string(dropped_.exchange(0)) +
              " messages that JACK had not played within a second");
}

JackOutput::JackOutput(Log& log)
    : link_(std::make_shared<Link>(log)) {}

JackOutput::~JackOutput() {
    JackOutput::disposeClient(clientRef);
}

MIDIStatus JackOutput::createClient(std::string_view name, MIDIObjectRef& client) {
    client = 0;
    if (thread_.joinable() || !link_->prepare(name)) return -EBUSY;

    try {
        thread_ = startThread("tessary-jack", [link = link_] { link->run(); });
    } catch (const std::system_error&) {
        link_->abandon();
    }

    const MIDIStatus status = link_->awaitClient();
    if (status == 0)
        client = clientRef;
    else
        disposeClient(clientRef);
    return status;
}

MIDIStatus JackOutput::createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                                    MIDIObjectRef& source) {
    source = 0;
    if (client != clientRef || protocol != midiProtocol1_0 || !thread_.joinable()) return -EINVAL;
    const MIDIStatus status = link_->openPort(name);
    if (status == 0) source = sourceRef;
    return status;
}

void JackOutput::setUniqueID(MIDIObjectRef, std::int32_t) {}

void JackOutput::disposeSource(MIDIObjectRef source) {
    if (source == sourceRef) link_->closePort();
}

void JackOutput::disposeClient(MIDIObjectRef client) {
    if (client != clientRef || !thread_.joinable()) return;
    if (link_->close())
        thread_.join();
    else
        thread_.detach(); // it ends by itself once the server answers or dies
}

void JackOutput::publish(MIDIObjectRef source, std::uint64_t hostTime,
                         std::span<const std::uint8_t> message) {
    if (source == sourceRef) link_->publish(hostTime, message);
}

} // namespace tessary
