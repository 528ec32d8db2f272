// What a compromised discovery process sends: to the reader of its messages and, as far as they are messages,
// to the client. And a datagram, to the function that hides the aliases in it.
//
// An input is a byte, how often the stream is repeated, and the stream or datagram. `Started` stands for a
// new process, and `Pong` runs the client's queue. The browses are number 1 and 2, resolutions follow.
#include "Aliases.h"
#include "Fuzz.h"
#include "Models/UTF8.h"
#include "Platform/discovery/DiscoveryClient.h"
#include "Platform/discovery/DiscoveryProcess.h"
#include "Services/PeerDiscovery.h"
#include "support/Fakes.h"

using namespace tessary;
using namespace tessary::discovery;
using fuzz::require;
using test::Bytes;

/// Of the sanitizers' allocators; absent in a build without them, where memory is not counted.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

std::size_t allocatedBytes() {
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : 0;
}

/// What encoding would not change. It cuts texts and lists, so those are short.
template <typename Field>
void requireValid(const Field& field) {
    if constexpr (std::is_same_v<Field, std::string>) require(isUTF8(field), "a text is UTF-8");
    if constexpr (std::is_same_v<Field, Responder>)
        require(field <= Responder::embedded, "the responder is one of them");
}

/// Reads the stream in pieces. How many bytes were whole messages, and whether the rest is none.
template <typename PieceSize>
std::pair<std::size_t, bool> read(const Bytes& stream, PieceSize pieceSize) {
    const std::size_t allocated = allocatedBytes();
    MessageReader<Report> reader;
    std::size_t read = 0;
    Bytes frame;
    frame.reserve(4 + maxFrameSize);
    for (std::size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = std::min(pieceSize(stream[at]), stream.size() - at);
        reader.append(std::span(stream).subspan(at, size));
        while (auto report = reader.next()) {
            frame.clear();
            encode(*report, frame);
            require(frame.size() <= 4 + maxFrameSize && read + frame.size() <= at + size &&
                        std::equal(frame.begin(), frame.end(),
                                   stream.begin() + static_cast<std::ptrdiff_t>(read)),
                    "a message encodes to what it came from");
            read += frame.size();
            const auto check = [](const auto&... field) { (requireValid(field), ...); };
            std::visit([&](auto& message) { std::apply(check, message.fields()); }, *report);
        }
        if (reader.isBroken()) break;
        require(at + size - read < 4 + maxFrameSize, "what is no message is noticed");
        // A vector may be twice as large as what it holds.
        require(allocatedBytes() <= allocated + 3 * (4 + maxFrameSize) + 2 * size,
                "a reader keeps one frame");
    }
    if (reader.isBroken()) {
        encode(Report(Pong{}), frame);
        reader.append(frame);
        require(!reader.next(), "a stream is broken for good");
    }
    return {read, reader.isBroken()};
}

const DiscoveryProcess::Handlers* process = nullptr;

/// The program's side: resolves what is listed, for as long as it is.
class Program : test::FakeMachine {
  public:
    Program() {
        discovery_->start();
        process->started();
    }

    void hear(const Report& report) {
        if (std::holds_alternative<Pong>(report))
            run();
        else if (std::holds_alternative<Started>(report) || !process->reported(report))
            process->started();
        failures_ += std::holds_alternative<BrowseFailed>(report);
        require(mainQueue->waiting() <= 2 + failures_,
                "one report of each browse waits, however often it has changed");
    }
    void run() {
        time.run();
        failures_ = 0;
        for (const auto& [name, peer] : *discovery_->appleMidiResolved)
            require(!name.empty() && peer.host.isUnicast(),
                    "a service has a name and the address of a machine");
    }

  private:
    EventLoop loop_;
    DiscoveryClient client_{loop_, *mainQueue, log, ""};
    std::shared_ptr<PeerDiscovery> discovery_ =
        std::make_shared<PeerDiscovery>(platform({.serviceDiscovery = &client_}));
    std::size_t failures_ = 0;
};

void requireOnlyAliasesHidden(const Bytes& datagram) {
    Bytes hidden(datagram);
    hideAliases(hidden);
    for (std::size_t i = 0; i < datagram.size(); ++i)
        require(hidden[i] == datagram[i] ||
                    (i >= 12 && datagram[i] == 0 && hidden[i] == 0xFF && datagram[i + 1] == 5),
                "only types change");
}

} // namespace

// In place of the one that starts a process.
namespace tessary::discovery {

DiscoveryProcess::DiscoveryProcess(EventLoop& loop, Log& log, std::filesystem::path, Handlers handlers)
    : loop_(loop)
    , log_(log)
    , handlers_(std::move(handlers)) {
    process = &handlers_;
}

DiscoveryProcess::~DiscoveryProcess() = default;

void DiscoveryProcess::readable() {}

void DiscoveryProcess::send(const Request& request) {
    Bytes frame;
    encode(request, frame);
    MessageReader<Request> reader;
    reader.append(frame);
    require(reader.next().has_value(), "what is asked is a message");
}

} // namespace tessary::discovery

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Bytes input(data + 1, data + size);
    requireOnlyAliasesHidden(input);

    Bytes stream;
    for (int times = 1 + data[0] % 16; times > 0; --times)
        stream.insert(stream.end(), input.begin(), input.end());
    const auto whole = read(stream, [&](std::uint8_t) { return stream.size(); });
    require(whole == read(stream, [](std::uint8_t byte) { return std::size_t{1} + byte; }) &&
                whole == read(stream, [](std::uint8_t) { return std::size_t{1}; }),
            "pieces of any size give the same");
    if (whole.first == 0) return 0;

    MessageReader<Report> reader;
    reader.append(stream);
    Program program;
    while (const auto report = reader.next())
        program.hear(*report);
    program.run();
    return 0;
}
