// What a discovery process that was taken over says: to the reader of its messages, and, as far as they are
// messages, to the client. And a datagram, to what hides the aliases in it.
//
// An input is a byte, how often the stream is repeated, and the stream or datagram. `Started` stands for a
// new process, and `Pong` has the client's queue run. The browses are number 1 and 2, resolutions follow.
#include "Aliases.h"
#include "Models/UTF8.h"
#include "Platform/Log.h"
#include "Platform/discovery/DiscoveryClient.h"
#include "Platform/discovery/DiscoveryProcess.h"
#include "Require.h"

#include <algorithm>
#include <set>

using namespace tessary;
using namespace tessary::discovery;
using fuzz::require;
using Bytes = std::vector<std::uint8_t>;

/// Of the sanitizers' allocators; absent in a build without them, where memory is not counted.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

std::size_t allocatedBytes() {
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : 0;
}

void requireBounds(std::uint8_t) {}
void requireBounds(std::uint16_t) {}
void requireBounds(std::uint32_t) {}
void requireBounds(Responder responder) {
    require(responder <= Responder::embedded, "the responder is one of them");
}
void requireBounds(const std::string& text) {
    require(text.size() <= maxTextSize && isUTF8(text), "a text is short and UTF-8");
}
void requireBounds(const std::vector<IPv4Host>& hosts) {
    require(hosts.size() <= maxAddresses, "a host has a few addresses");
}

struct Outcome {
    std::size_t read; ///< bytes of whole messages
    bool isBroken;
    bool operator==(const Outcome&) const = default;
};

template <typename PieceSize>
Outcome read(const Bytes& stream, PieceSize pieceSize) {
    const std::size_t allocated = allocatedBytes();
    MessageReader<Report> reader;
    Outcome outcome{};
    Bytes frame;
    frame.reserve(4 + maxFrameSize);
    for (std::size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = std::min(pieceSize(stream[at]), stream.size() - at);
        reader.append(std::span(stream).subspan(at, size));
        while (const auto report = reader.next()) {
            frame.clear();
            encode(*report, frame);
            require(frame.size() <= 4 + maxFrameSize, "a frame is short");
            require(outcome.read + frame.size() <= at + size &&
                        std::equal(frame.begin(), frame.end(),
                                   stream.begin() + static_cast<std::ptrdiff_t>(outcome.read)),
                    "a message encodes to what it came from");
            outcome.read += frame.size();
            auto fields = *report;
            std::visit(
                [](auto& each) {
                    std::apply([](const auto&... field) { (requireBounds(field), ...); }, each.fields());
                },
                fields);
        }
        if ((outcome.isBroken = reader.isBroken())) return outcome;
        require(at + size - outcome.read < 4 + maxFrameSize, "what is no message is noticed");
        // A vector may be twice as large as what it holds.
        require(allocatedBytes() <= allocated + 3 * (4 + maxFrameSize) + 2 * size,
                "a reader keeps one frame");
    }
    return outcome;
}

struct WaitingQueue : Queue {
    void post(std::function<void()> work) override { waiting.push_back(std::move(work)); }
    void run() {
        while (!waiting.empty())
            for (const auto& work : std::exchange(waiting, {}))
                work();
    }
    std::vector<std::function<void()>> waiting;
};

struct SilentLog : Log {
    void line(std::string_view) override {}
};

const DiscoveryProcess::Handlers* process = nullptr;
std::set<std::uint32_t> asked;

/// The program's side: resolves what is listed, as long as it is, and tries once more what was not found.
class Program {
  public:
    Program() {
        for (const char* type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            browsers_.push_back(client_->makeBrowser(type));
            browsers_.back()->start(client_->makeQueue("fuzz"),
                                    {.resultsChanged = [this, type](const auto& set) { show(type, set); },
                                     .failed = [](const std::string& reason) { requireBounds(reason); }});
        }
        process->started();
    }
    ~Program() {
        client_.reset();
        queue_.run();
        resolutions_.clear();
        asked.clear();
    }

    void hear(const Report& report) {
        if (std::holds_alternative<Pong>(report))
            run();
        else if (std::holds_alternative<Started>(report) || !process->reported(report))
            process->started();
        failures_ += std::holds_alternative<BrowseFailed>(report);
        require(queue_.waiting.size() <= browsers_.size() + failures_,
                "one report of each browse waits, however often it has changed");
    }
    void run() {
        queue_.run();
        failures_ = 0;
    }

  private:
    using Key = std::pair<std::string, std::string>; // type and name
    struct Resolution {
        std::shared_ptr<ServiceResolver> resolver;
        bool isUnderWay = false;
    };

    void show(const std::string& type, const std::vector<BrowseResult>& results) {
        std::set<Key> listed;
        for (const BrowseResult& result : results) {
            require(!result.name.empty() && result.type == type, "a service has a name and the type");
            const Key key{type, result.name};
            if (!listed.insert(key).second || resolutions_.contains(key)) continue;
            auto& resolution = resolutions_[key];
            resolution.resolver = client_->makeResolver(result.domain + ".", type + ".", result.name);
            resolve(resolution, true);
        }
        std::erase_if(resolutions_, [&](const auto& entry) {
            return entry.first.first == type && !listed.contains(entry.first);
        });
    }

    void resolve(Resolution& resolution, bool mayRepeat) {
        const auto finish = [&resolution](ServiceResolver& resolver) {
            require(std::exchange(resolution.isUnderWay, false), "a resolution has one outcome");
            resolver.stop();
        };
        resolution.isUnderWay = true;
        resolution.resolver->resolve(
            std::chrono::seconds(5),
            {.didResolve =
                 [=](ServiceResolver& resolver) {
                     finish(resolver);
                     require(std::ranges::all_of(*resolver.addresses(), &IPv4Host::isUnicast) &&
                                 resolver.port() >= 0,
                             "an address is one of a machine");
                 },
             .didNotResolve =
                 [=, this, &resolution](ServiceResolver& resolver, const std::string& reason) {
                     finish(resolver);
                     requireBounds(reason);
                     if (mayRepeat) resolve(resolution, false);
                 }});
    }

    WaitingQueue queue_;
    SilentLog log_;
    std::size_t failures_ = 0;
    std::unique_ptr<DiscoveryClient> client_ = [this] {
        static EventLoop loop;
        return std::make_unique<DiscoveryClient>(loop, queue_, log_, "");
    }();
    std::map<Key, Resolution> resolutions_;
    std::vector<std::unique_ptr<ServiceBrowser>> browsers_;
};

void requireOnlyAliasesHidden(const Bytes& datagram) {
    Bytes hidden(datagram);
    hideAliases(hidden);
    for (std::size_t i = 0; i < datagram.size(); ++i)
        require(hidden[i] == datagram[i] ||
                    (i >= 12 && datagram[i] == 0 && hidden[i] == 0xFF && datagram[i + 1] == 5),
                "only types change");
    Bytes again(hidden);
    hideAliases(again);
    require(again == hidden, "what is hidden stays");
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
    const auto begins = [](std::uint32_t number) { asked.insert(number); };
    const auto ends = [](std::uint32_t number) { require(asked.erase(number) == 1, "what ends had begun"); };
    if (const auto* browse = std::get_if<Browse>(&request)) begins(browse->browse);
    if (const auto* resolve = std::get_if<Resolve>(&request)) begins(resolve->resolution);
    if (const auto* endBrowse = std::get_if<EndBrowse>(&request)) ends(endBrowse->browse);
    if (const auto* endResolve = std::get_if<EndResolve>(&request)) ends(endResolve->resolution);
}

} // namespace tessary::discovery

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Bytes input(data + 1, data + size);
    requireOnlyAliasesHidden(input);

    Bytes stream;
    for (int times = 1 + data[0] % 16; times > 0; --times)
        stream.insert(stream.end(), input.begin(), input.end());
    const Outcome whole = read(stream, [&](std::uint8_t) { return stream.size(); });
    require(whole == read(stream, [](std::uint8_t byte) { return std::size_t{1} + byte; }) &&
                whole == read(stream, [](std::uint8_t) { return std::size_t{1}; }),
            "pieces of any size give the same");
    if (whole.read == 0) return 0;

    MessageReader<Report> reader;
    reader.append(stream);
    Program program;
    while (const auto report = reader.next())
        program.hear(*report);
    program.run();
    return 0;
}
