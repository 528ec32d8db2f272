#include "Platform/alsa/AlsaOutput.h"

#include "Platform/alsa/PacedSender.h"
#include "Platform/alsa/SequencerEncoder.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tessary {

namespace {

constexpr MIDIObjectRef clientRef = 1;
constexpr MIDIObjectRef sourceRef = 2;

/// Fixed, because saved connections store it.
constexpr int portNumber = 0;

constexpr unsigned portCapabilities = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
constexpr unsigned portType =
    SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_SOFTWARE | SND_SEQ_PORT_TYPE_PORT;

void ignoreMessage(const char*, int, const char*, int, const char*, ...) {}

} // namespace

class AlsaOutput::Client {
  public:
    explicit Client(Log& log)
        : log_(log) {}
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() {
        sender_.reset();
        if (sequencer_) snd_seq_close(sequencer_);
    }

    MIDIStatus open(std::string_view name);
    MIDIStatus openPort(std::string_view name);
    void closePort();

    void publish(std::uint64_t hostTime, std::span<const std::uint8_t> message) {
        if (sender_) sender_->publish(hostTime, message);
    }

  private:
    int send(std::uint64_t hostTime, std::span<const std::uint8_t> bytes);

    std::vector<Subscriber> subscribers() const;

    Log& log_;
    snd_seq_t* sequencer_ = nullptr;
    SequencerEncoder encoder_;
    std::optional<PacedSender> sender_; ///< present exactly while the port exists
};

MIDIStatus AlsaOutput::Client::open(std::string_view name) {
    // On a machine without a sequencer libasound would print an error to the terminal.
    snd_lib_error_set_handler(ignoreMessage);
    const int status = snd_seq_open(&sequencer_, "default", SND_SEQ_OPEN_OUTPUT, SND_SEQ_NONBLOCK);
    snd_config_update_free_global(); // the parsed configuration is large and no longer needed
    if (status < 0) return status;
    // libasound and the kernel allocate their send buffers with the first event. This one has no source port
    // yet, so the kernel delivers it to no client.
    constexpr std::array<std::uint8_t, PacedSender::pieceSize> piece{0xF0};
    send(0, piece);
    return snd_seq_set_client_name(sequencer_, std::string(name).c_str());
}

MIDIStatus AlsaOutput::Client::openPort(std::string_view name) {
    if (sender_) return -EBUSY;
    try {
        sender_.emplace(
            [this](std::uint64_t hostTime, std::span<const std::uint8_t> bytes) {
                // An error here may mean that one subscriber's queue is full. The other subscribers have
                // received the event, so it is not sent again.
                send(hostTime, bytes);
            },
            [this] { return subscribers(); }, log_);
    } catch (const std::system_error&) {
        return -EAGAIN;
    }
    snd_seq_port_info_t* port = nullptr;
    snd_seq_port_info_alloca(&port);
    snd_seq_port_info_set_port(port, portNumber);
    snd_seq_port_info_set_port_specified(port, 1);
    snd_seq_port_info_set_name(port, std::string(name).c_str());
    snd_seq_port_info_set_capability(port, portCapabilities);
    snd_seq_port_info_set_type(port, portType);
    snd_seq_port_info_set_midi_channels(port, 16);
    const int status = snd_seq_create_port(sequencer_, port);
    if (status < 0) sender_.reset();
    return status;
}

void AlsaOutput::Client::closePort() {
    if (!sender_) return;
    sender_.reset();
    snd_seq_delete_port(sequencer_, portNumber);
}

int AlsaOutput::Client::send(std::uint64_t hostTime, std::span<const std::uint8_t> bytes) {
    auto event = encoder_.encode(portNumber, hostTime, bytes);
    return event ? snd_seq_event_output_direct(sequencer_, &*event) : 0;
}

std::vector<Subscriber> AlsaOutput::Client::subscribers() const {
    pollfd file{};
    snd_seq_poll_descriptors(sequencer_, &file, 1, POLLOUT);
    return subscribersOf(file.fd, snd_seq_client_id(sequencer_), portNumber);
}

AlsaOutput::AlsaOutput(Log& log)
    : log_(log) {}
AlsaOutput::~AlsaOutput() = default;

bool AlsaOutput::isAvailable() {
    const int file = open("/dev/snd/seq", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    struct stat status {};
    const bool isDevice = fstat(file, &status) == 0 && S_ISCHR(status.st_mode);
    close(file);
    return isDevice;
}

MIDIStatus AlsaOutput::createClient(std::string_view name, MIDIObjectRef& client) {
    client = 0;
    if (client_) return -EBUSY;
    client_ = std::make_unique<Client>(log_);
    const MIDIStatus status = client_->open(name);
    if (status == 0)
        client = clientRef;
    else
        client_.reset();
    return status;
}

MIDIStatus AlsaOutput::createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                                    MIDIObjectRef& source) {
    source = 0;
    if (client != clientRef || protocol != midiProtocol1_0 || !client_) return -EINVAL;
    const MIDIStatus status = client_->openPort(name);
    if (status == 0) source = sourceRef;
    return status;
}

void AlsaOutput::setUniqueID(MIDIObjectRef, std::int32_t) {}

void AlsaOutput::disposeSource(MIDIObjectRef source) {
    if (source == sourceRef && client_) client_->closePort();
}

void AlsaOutput::disposeClient(MIDIObjectRef client) {
    if (client == clientRef) client_.reset();
}

void AlsaOutput::publish(MIDIObjectRef source, std::uint64_t hostTime,
                         std::span<const std::uint8_t> message) {
    if (source == sourceRef && client_) client_->publish(hostTime, message);
}

} // namespace tessary
