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

/// The largest event that fits into the port buffers of JACK (8,192 samples of four bytes, less their
/// header).
constexpr std::size_t maxMessageSize = 32'720;
/// Thirty of the longest messages, or seconds of the densest playing; a power of two.
constexpr std::size_t ringCapacity = 1 << 20;

/// Launch waits this long, twice, for a server that exists but does not answer. The source then appears when
/// the server answers.
constexpr auto answerTimeout = 100ms;
/// The end of the program waits this long for such a server.
constexpr auto closeTimeout = 200ms;
/// A lost server is looked for at this interval; a failed attempt costs one refused `connect`. It also gives
/// libjack time for the last notifications of the lost server.
constexpr auto retryInterval = 1s;

/// In microseconds. Older messages are dropped at their cycle: the server was stopped in the meantime.
constexpr jack_time_t maxAge = 1'000'000;

void ignoreMessage(const char*) {}

} // namespace

/// The connection to the server. Opened once in a process: libjack frees the clients of a dead server when
/// the process opens a new one, so there must be no second connection. The thread and the output own it
/// together, because a hanging server may hold up libjack, and with it the thread, for longer than the output
/// lives.
class JackOutput::Link {
  public:
    explicit Link(Log& log)
        : log_(log) {}

    /// Opens the client, then the port once its name is known, and opens both anew whenever the server was
    /// lost, until `close`. Ends at once if there is no server at launch.
    ///
    /// Runs on: a thread of its own, with every signal blocked but SIGXCPU; JACK's threads inherit that.
    void run(const std::string& clientName);

    // The following run on the main thread.

    MIDIStatus awaitClient() { return await(clientStatus_); }
    MIDIStatus openPort(std::string_view name);
    void mute() { takesMessages_.store(false, std::memory_order_release); }
    /// Asks the thread to end; returns whether it has, within the timeout.
    bool close();

    /// Stamps the message with JACK's own clock, which drifts apart from the host's by a period a minute.
    ///
    /// Runs on: the network thread.
    void publish(std::span<const std::uint8_t> message) {
        if (message.empty() || message.size() > maxMessageSize) return;
        if (takesMessages_.load(std::memory_order_acquire)) ring_.push(jack_->get_time(), message);
        if (dropped_.load(std::memory_order_relaxed) != 0) reportDropped();
    }

  private:
    using Lock = std::unique_lock<std::mutex>;

    MIDIStatus await(std::optional<MIDIStatus>& status);
    void keepPort(const std::string& clientName, Lock& lock);
    MIDIStatus openClient(const std::string& name);
    bool activate(const std::string& portName);
    void closeClient();

    static int process(jack_nframes_t frames, void* link);
    static void serverLost(void* link);
    void play(jack_nframes_t frames);
    void reportDropped();

    Log& log_;
    const JackLibrary* jack_ = nullptr; ///< set before there is a client; null without the library
    jack_client_t* client_ = nullptr;   ///< written only while JACK does not call `process`
    std::atomic<jack_port_t*> port_{nullptr};

    MIDIRing ring_{ringCapacity};
    std::atomic<bool> takesMessages_{false};
    std::size_t dropping_ = 0;            ///< messages dropped as too old in the cycles just before this one
    std::atomic<std::size_t> dropped_{0}; ///< the same, to be reported by the network thread

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by the mutex.
    std::string portName_; ///< empty until the port is wanted
    std::optional<MIDIStatus> clientStatus_;
    std::optional<MIDIStatus> portStatus_;
    bool isServerLost_ = false;
    bool isClosing_ = false;
    bool hasEnded_ = false;
};

void JackOutput::Link::run(const std::string& clientName) {
    stepDownWhenTold();
    jack_ = JackLibrary::load();
    if (jack_) {
        jack_->set_error_function(ignoreMessage);
        jack_->set_info_function(ignoreMessage);
    }
    const MIDIStatus status = openClient(clientName);
    Lock lock(mutex_);
    const bool hasLaunched = clientStatus_.has_value(); // without waiting for this any longer
    clientStatus_ = status;
    changed_.notify_all();
    if (client_ || hasLaunched) keepPort(clientName, lock);
    hasEnded_ = true;
    changed_.notify_all();
}

void JackOutput::Link::keepPort(const std::string& clientName, Lock& lock) {
    changed_.wait(lock, [this] { return isClosing_ || !portName_.empty(); });
    while (!isClosing_) {
        lock.unlock();
        const bool isOpen = (client_ || openClient(clientName) == 0) && activate(portName_);
        lock.lock();
        if (!portStatus_) portStatus_ = isOpen ? 0 : -EIO;
        changed_.notify_all();
        if (*portStatus_ != 0) break; // launch has failed, and the program goes on without a source
        if (isOpen) changed_.wait(lock, [this] { return isClosing_ || isServerLost_; });
        // Wait before the closing, not after it: jack_client_close cancels libjack's notification thread. If
        // that happens while the thread handles the lost server's last notifications, it keeps a mutex
        // locked, and every later call of libjack hangs.
        changed_.wait_for(lock, retryInterval, [this] { return isClosing_; });
        lock.unlock();
        closeClient();
        lock.lock();
        isServerLost_ = false; // no callback of a closed client can set it again
    }
    lock.unlock();
    closeClient();
    lock.lock();
}

MIDIStatus JackOutput::Link::openClient(const std::string& name) {
    if (!jack_) return -(JackFailure | JackServerFailed); // as without a server
    jack_status_t status{};
    client_ = jack_->client_open(name.c_str(), JackNoStartServer, &status);
    limitRealTimeRun(); // PipeWire's libjack sets a limit that kills the process without a warning
    if (!client_) return status ? -static_cast<MIDIStatus>(status) : -EIO;
    jack_->on_shutdown(client_, serverLost, this);
    jack_->set_process_callback(client_, process, this);
    return 0;
}

bool JackOutput::Link::activate(const std::string& portName) {
    ring_.clear(); // of what was published before the loss of the last server was noticed
    // Before the port exists: other programs may connect to it before `port_register` returns.
    takesMessages_.store(true, std::memory_order_release);
    // The port comes second: a program that connects to the port of a client which is about to become active
    // can stall the server for seconds.
    if (jack_->activate(client_) != 0) return false;
    port_ = jack_->port_register(client_, portName.c_str(), JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    return port_ != nullptr;
}

void JackOutput::Link::closeClient() {
    mute();
    if (client_) jack_->client_close(client_);
    client_ = nullptr;
    port_ = nullptr;
}

MIDIStatus JackOutput::Link::await(std::optional<MIDIStatus>& status) {
    Lock lock(mutex_);
    changed_.wait_for(lock, answerTimeout, [&status] { return status.has_value(); });
    if (!status) status = 0; // it comes when the server answers
    return *status;
}

MIDIStatus JackOutput::Link::openPort(std::string_view name) {
    {
        const Lock lock(mutex_);
        if (!portName_.empty()) return -EBUSY;
        portName_ = name;
        changed_.notify_all();
    }
    return await(portStatus_);
}

bool JackOutput::Link::close() {
    mute();
    Lock lock(mutex_);
    isClosing_ = true;
    changed_.notify_all();
    return changed_.wait_for(lock, closeTimeout, [this] { return hasEnded_; });
}

// libjack ends its threads by asynchronous cancellation, which must not interrupt our code, so both callbacks
// disable it. Where they enable it again, the stack unwinds through them: they must not be noexcept, and
// nothing on their stack may have a destructor.

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
    link->mute();
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

    const jack_time_t now = jack_->get_time();
    const std::size_t droppedBefore = dropping_;
    jack_nframes_t frame = 0;
    while (const auto head = ring_.front()) {
        if (head->time + maxAge < now) {
            ++dropping_;
            ring_.pop(*head);
            continue;
        }
        const auto due = times.frameOf(static_cast<std::int64_t>(head->time));
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
    if (thread_.joinable()) return -EBUSY;
    try {
        thread_ = startThread("tessary-jack", [link = link_, name = std::string(name)] { link->run(name); });
    } catch (const std::system_error&) {
        return -EAGAIN;
    }
    const MIDIStatus status = link_->awaitClient();
    if (status == 0) client = clientRef;
    return status;
}

MIDIStatus JackOutput::createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                                    MIDIObjectRef& source) {
    source = 0;
    if (client != clientRef || protocol != midiProtocol1_0 || name.empty()) return -EINVAL;
    const MIDIStatus status = link_->openPort(name);
    if (status == 0) source = sourceRef;
    return status;
}

void JackOutput::setUniqueID(MIDIObjectRef, std::int32_t) {}

void JackOutput::disposeSource(MIDIObjectRef source) {
    if (source == sourceRef) link_->mute();
}

void JackOutput::disposeClient(MIDIObjectRef client) {
    if (client != clientRef || !thread_.joinable()) return;
    if (link_->close())
        thread_.join();
    else
        thread_.detach(); // it ends once the server answers or dies
}

void JackOutput::publish(MIDIObjectRef source, std::uint64_t, std::span<const std::uint8_t> message) {
    if (source == sourceRef) link_->publish(message);
}

} // namespace tessary
