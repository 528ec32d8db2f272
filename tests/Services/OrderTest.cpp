// Orders of events between the main thread and a session's queue. What must hold is independent of the order,
// but for what the order itself decides, and that is said by a model in which the main thread is never busy.
#include "support/ObservedMachine.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

using namespace tessary;
using namespace tessary::test;

namespace {

using Case = RTPMIDISession::Case;

/// A session whose states are stored at once, with nothing but the rules.
struct ModelSession {
    Case state = Case::idle;
    bool hasControl = false, hasData = false;
    std::vector<Case> reports;
    std::vector<std::string> reasons;

    void enter(Case next) { reports.push_back(state = next); }
    void start() {
        if (state != Case::idle) return;
        hasControl = true;
        enter(Case::invitingControl);
    }
    void stop() {
        hasControl = hasData = false;
        enter(Case::idle);
    }
    void acceptControl() {
        if (state != Case::invitingControl) return;
        hasData = true;
        enter(Case::invitingData);
    }
    void acceptData() {
        if (state == Case::invitingData) enter(Case::syncing);
    }
    void clock() {
        if (hasData && state != Case::running) enter(Case::running);
    }
    void peerEnds(const std::string& reason) {
        enter(Case::failed);
        reasons.push_back(reason);
        stop();
    }
};

/// What of the reports no order may change: two of the states on the way may be passed over by whoever is
/// late, and `running` may be said again by a peer who answers twice before it is stored.
std::vector<Case> essence(const std::vector<Case>& reports) {
    std::vector<Case> kept;
    for (const Case each : reports) {
        if (each == Case::invitingData || each == Case::syncing) continue;
        if (each == Case::running && !kept.empty() && kept.back() == Case::running) continue;
        kept.push_back(each);
    }
    return kept;
}

/// One session, the model beside it, and the events that can happen to both.
class SessionWorld {
  public:
    enum Event {
        mainThread, ///< runs one piece of its work
        sessionQueue,
        start,
        stop,
        acceptControl,
        rejectControl,
        byeControl,
        acceptData,
        rejectData,
        byeData,
        clock,
        midi,
        lateBye, ///< on a connection whose end was already said
        letGo,
        eventCount
    };
    static constexpr std::array<const char*, eventCount> names{
        "main",        "queue",       "start",    "stop",  "accept control", "reject control", "bye control",
        "accept data", "reject data", "bye data", "clock", "midi",           "late bye",       "let go"};

    SessionWorld() {
        session_ = std::make_shared<RTPMIDISession>(machine_.platform(), "iPad", IPv4Host{{10, 0, 0, 2}},
                                                    std::uint16_t{5004}, "Tessary Link");
        queue_ = machine_.journaled.lastQueue;
        session_->stateDidChange = [this](const RTPMIDISession::State& state) {
            reports_.push_back(state.which);
            if (state.which == Case::failed) reasons_.push_back(state.reason);
            if (!session_) wrong_ = "a report after it was let go";
        };
        session_->midiPacketReceived = [this](std::span<const std::uint8_t>) {
            ++midi_;
            if (!session_) wrong_ = "MIDI after it was let go";
        };
    }

    /// False if the event cannot happen now, which changes nothing.
    bool happen(Event event) {
        using P = AppleMIDIPacket;
        const auto control = open(51204), data = open(51205);
        switch (event) {
        case mainThread:
            return machine_.mainQueue->runOne();
        case sessionQueue:
            return queue_->runOne();
        case start: // the owner starts a session that it knows to be idle
            if (!session_ || model_.state != Case::idle || machine_.mainQueue->waiting() > 0) return false;
            session_->start();
            model_.start();
            return true;
        case stop:
            if (!session_ || model_.state == Case::idle) return false;
            session_->stop();
            model_.stop();
            return true;
        case acceptControl:
            return arrive(control, P{P::Accept{lastToken(control), 7, ""}}, [&] { model_.acceptControl(); });
        case rejectControl:
            return arrive(control, P{P::Reject{0, 7, ""}},
                          [&] { model_.peerEnds("control invitation rejected"); });
        case byeControl:
            return arrive(control, P{P::Bye{0, 7}}, [&] { model_.peerEnds("peer sent BYE"); });
        case acceptData:
            return arrive(data, P{P::Accept{lastToken(data), 7, ""}}, [&] { model_.acceptData(); });
        case rejectData:
            return arrive(data, P{P::Reject{0, 7, ""}}, [&] { model_.peerEnds("data invitation rejected"); });
        case byeData:
            return arrive(data, P{P::Bye{0, 7}}, [&] { model_.peerEnds("peer BYE on data port"); });
        case clock:
            return arrive(data, P{P::ClockSync{7, 1, 0, 0, 0}}, [&] { model_.clock(); });
        case midi:
            if (!data) return false;
            data->deliver(Bytes{0x80, 0x61, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7, 1, 0xF8});
            runUntilHandled();
            if (session_) ++expectedMIDI_;
            return true;
        case lateBye: {
            const auto ended = closing();
            return arrive(ended, P{P::Bye{0, 7}}, [&] {
                model_.peerEnds(ended->localPort == 51204 ? "peer sent BYE" : "peer BYE on data port");
            });
        }
        case letGo:
            if (!session_ || model_.hasControl) return false; // the owner stops it first
            session_.reset();
            return true;
        case eventCount:
            break;
        }
        return false;
    }

    /// What is wrong in between; empty if nothing is.
    std::string wrongNow() const { return wrong_.empty() ? machine_.wrongNow() : wrong_; }

    /// Lets everything finish and compares with the model.
    std::string wrongInTheEnd() {
        const bool isHeld = session_ != nullptr;
        machine_.time.advance(200ms);
        if (!wrongNow().empty()) return wrongNow();
        if (midi_ != expectedMIDI_) return "MIDI was lost";
        if (!isHeld) return {}; // reports that were on their way then are lost with it
        if (session_->state().which != model_.state) return "it ends in another state";
        if (reports_.empty() != model_.reports.empty() ||
            (!reports_.empty() && reports_.back() != model_.state))
            return "the last report is not the state";
        if (essence(reports_) != essence(model_.reports)) return "other reports";
        if (reasons_ != model_.reasons) return "other reasons";
        for (const auto& journal : machine_.journaled.journals)
            if (journal->isOpen() && (journal->isEnded() || !model_.hasControl))
                return "a connection is left open";
        return {};
    }

  private:
    std::shared_ptr<FakeConnection> open(std::uint16_t port) const {
        for (auto it = machine_.journaled.journals.rbegin(); it != machine_.journaled.journals.rend(); ++it)
            if ((*it)->localPort == port && (*it)->isOpen() && (*it)->isInvited() && !(*it)->isEnded())
                return (*it)->connection.lock();
        return nullptr;
    }
    std::shared_ptr<FakeConnection> closing() const {
        for (const auto& journal : machine_.journaled.journals)
            if (journal->isOpen() && journal->isEnded()) return journal->connection.lock();
        return nullptr;
    }
    static std::uint32_t lastToken(const std::shared_ptr<FakeConnection>& connection) {
        return connection ? connection->sentOf<AppleMIDIPacket::Invitation>().back().token : 0;
    }
    template <typename Effect>
    bool arrive(const std::shared_ptr<FakeConnection>& on, const AppleMIDIPacket& packet, Effect effect) {
        if (!on) return false;
        on->deliver(packet);
        runUntilHandled();
        if (session_) effect();
        return true;
    }
    void runUntilHandled() {
        for (auto pieces = queue_->waiting(); pieces > 0; --pieces)
            queue_->runOne();
    }

    ObservedMachine machine_;
    ModelSession model_;
    std::shared_ptr<RTPMIDISession> session_;
    std::shared_ptr<VirtualTime::VirtualQueue> queue_;
    std::vector<Case> reports_;
    std::vector<std::string> reasons_;
    int midi_ = 0, expectedMIDI_ = 0;
    std::string wrong_;
};

/// The dialer, one peer in sight, and somebody at the menu.
class DialerWorld {
  public:
    enum Event {
        mainThread,
        sessionQueue,
        reconnect,
        leave, ///< the peer
        appear,
        freeze, ///< no auto-connect
        unfreeze,
        acceptControl,
        rejectControl,
        byeControl,
        acceptData,
        clock,
        byeData,
        lateBye,
        second, ///< passes, with a look at the peers
        eventCount
    };
    static constexpr std::array<const char*, eventCount> names{
        "main",        "queue",    "reconnect",      "leave",          "appear",
        "freeze",      "unfreeze", "accept control", "reject control", "bye control",
        "accept data", "clock",    "bye data",       "late bye",       "second"};

    DialerWorld() {
        discovery_->start();
        dialer_ = RTPMIDIDialer::make(machine_.platform(), discovery_, bridge_, "Tessary Link");
        for (const char* type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            machine_.serviceDiscovery.browser(type).see({"iPad"});
            machine_.time.run();
            machine_.serviceDiscovery.resolver(type, "iPad")->succeed({"10.0.0.2"}, 5004);
        }
    }

    bool happen(Event event) {
        using P = AppleMIDIPacket;
        const auto control = newest(51204), data = newest(51205);
        switch (event) {
        case mainThread:
            return machine_.mainQueue->runOne();
        case sessionQueue:
            return machine_.journaled.lastQueue->runOne();
        case reconnect:
            dialer_->reconnectNow();
            isSumStale_ = !*dialer_->autoConnectEnabled();
            return true;
        case leave:
            return see({});
        case appear:
            return see({"iPad"});
        case freeze:
            machine_.dialerLog.mayDial = false;
            dialer_->setAutoConnectEnabled(false);
            return true;
        case unfreeze:
            machine_.dialerLog.mayDial = true;
            dialer_->setAutoConnectEnabled(true);
            isSumStale_ = false;
            return true;
        case acceptControl:
            return arrive(control, P{P::Accept{lastToken(control), 7, ""}});
        case rejectControl:
            return arrive(control, P{P::Reject{0, 7, ""}});
        case byeControl:
            return arrive(control, P{P::Bye{0, 7}});
        case acceptData:
            return arrive(data, P{P::Accept{lastToken(data), 7, ""}});
        case clock:
            return arrive(data, P{P::ClockSync{7, 1, 0, 0, 0}});
        case byeData:
            return arrive(data, P{P::Bye{0, 7}});
        case lateBye:
            for (const auto& journal : machine_.journaled.journals)
                if (journal->isOpen() && journal->isEnded())
                    return arrive(journal->connection.lock(), P{P::Bye{0, 7}});
            return false;
        case second:
            machine_.time.advance(1s);
            return true;
        case eventCount:
            break;
        }
        return false;
    }
    std::string wrongNow() const {
        const std::string wrong = machine_.wrongNow();
        return wrong.empty() && !isSumStale_ ? machine_.wrongSum(*dialer_, *discovery_) : wrong;
    }
    /// After calm it plays again, if there is a peer and it may dial.
    std::string wrongInTheEnd() {
        machine_.time.advance(1500ms);
        if (const auto wrong = machine_.wrongAtRest(*dialer_, *discovery_); !wrong.empty()) return wrong;
        if (!wrongNow().empty()) return wrongNow();
        if (const auto control = newest(51204); control && !newest(51205)) {
            happen(acceptControl);
            machine_.time.advance(1ms);
        }
        happen(acceptData);
        happen(clock);
        machine_.time.advance(1ms);
        const bool runs = !machine_.dialerLog.sessions.empty();
        if (!isSumStale_ && *dialer_->connectedPeerIPs() !=
                                (runs ? std::vector<std::string>{"10.0.0.2"} : std::vector<std::string>{}))
            return "it does not play again";
        dialer_.reset();
        machine_.time.advance(200ms);
        for (const auto& journal : machine_.journaled.journals)
            if (journal->isOpen() || journal->isInvited() != journal->isEnded())
                return "a session has not ended";
        return machine_.wrongNow();
    }

  private:
    bool see(const std::vector<std::string>& listed) {
        machine_.serviceDiscovery.browser("_apple-midi._udp").see(listed);
        while (machine_.serviceDiscovery.queue->runOne()) {
        }
        // The resolution takes no time, so that only the main thread is late.
        machine_.mainQueue->post([this, listed] {
            for (const auto& resolver : std::vector(machine_.serviceDiscovery.resolvers))
                if (!resolver->isStopped) resolver->succeed({"10.0.0.2"}, 5004);
        });
        return true;
    }
    std::shared_ptr<FakeConnection> newest(std::uint16_t port) const {
        for (auto it = machine_.journaled.journals.rbegin(); it != machine_.journaled.journals.rend(); ++it)
            if ((*it)->localPort == port && (*it)->isOpen() && (*it)->isInvited() && !(*it)->isEnded())
                return (*it)->connection.lock();
        return nullptr;
    }
    static std::uint32_t lastToken(const std::shared_ptr<FakeConnection>& connection) {
        return connection ? connection->sentOf<AppleMIDIPacket::Invitation>().back().token : 0;
    }
    bool arrive(const std::shared_ptr<FakeConnection>& on, const AppleMIDIPacket& packet) {
        if (!on) return false;
        on->deliver(packet);
        auto& queue = *machine_.journaled.lastQueue;
        for (auto pieces = queue.waiting(); pieces > 0; --pieces)
            queue.runOne();
        return true;
    }

    ObservedMachine machine_;
    std::shared_ptr<PeerDiscovery> discovery_ = std::make_shared<PeerDiscovery>(machine_.platform());
    std::shared_ptr<CoreMIDIBridge> bridge_ = std::make_shared<CoreMIDIBridge>(machine_.platform());
    std::shared_ptr<RTPMIDIDialer> dialer_;
    bool isSumStale_ = false;
};

template <typename World>
using Order = std::vector<typename World::Event>;

template <typename World>
std::string written(const Order<World>& order) {
    std::string text;
    for (const auto event : order)
        text += std::string(text.empty() ? "" : ", ") + World::names[event];
    return text;
}

/// What goes wrong in this order; how far it got if an event of it cannot happen.
struct Outcome {
    std::string wrong;
    std::size_t happened = 0;
};

template <typename World>
Outcome play(const Order<World>& order) {
    World world;
    Outcome outcome;
    for (const auto event : order) {
        if (!world.happen(event)) return outcome;
        ++outcome.happened;
        outcome.wrong = world.wrongNow();
        if (!outcome.wrong.empty()) return outcome;
    }
    outcome.wrong = world.wrongInTheEnd();
    return outcome;
}

/// Plays every order of `length` events behind a beginning; the number of those that can happen.
template <typename World>
int playAll(Order<World> order, std::size_t length) {
    using Event = typename World::Event;
    const std::size_t fixed = order.size();
    order.resize(fixed + length, Event{});
    int played = 0;
    while (true) {
        const Outcome outcome = play<World>(order);
        if (!outcome.wrong.empty()) {
            ADD_FAILURE() << outcome.wrong << " after: " << written<World>(order);
            return played;
        }
        if (outcome.happened == order.size()) ++played;
        // Whatever follows an event that cannot happen need not be tried.
        std::size_t at = std::min(outcome.happened, order.size() - 1);
        for (std::size_t i = at + 1; i < order.size(); ++i)
            order[i] = Event{};
        while (order[at] + 1 == World::eventCount) {
            order[at] = Event{};
            if (at == fixed) return played;
            --at;
        }
        order[at] = static_cast<Event>(order[at] + 1);
    }
}

/// Plays every way in which two threads' events can mix, each in its own order. Events that cannot happen are
/// left out.
template <typename World>
int playMixed(const Order<World>& one, const Order<World>& other) {
    std::vector<bool> fromOne(one.size() + other.size());
    std::fill_n(fromOne.begin(), one.size(), true);
    int played = 0;
    do {
        World world;
        Order<World> order;
        auto nextOfOne = one.begin(), nextOfOther = other.begin();
        std::string wrong;
        for (const bool isOne : fromOne) {
            order.push_back(isOne ? *nextOfOne++ : *nextOfOther++);
            world.happen(order.back());
            if (wrong = world.wrongNow(); !wrong.empty()) break;
        }
        if (wrong.empty()) wrong = world.wrongInTheEnd();
        if (!wrong.empty()) {
            ADD_FAILURE() << wrong << " after: " << written<World>(order);
            return played;
        }
        ++played;
    } while (std::prev_permutation(fromOne.begin(), fromOne.end()));
    return played;
}

template <typename World>
void playRandomly(int count, std::size_t length) {
    const char* given = std::getenv("TESSARY_SEED"); // of a failure, to see it again
    const unsigned long first = given ? std::strtoul(given, nullptr, 10) : 1;
    for (unsigned long seed = first; seed < first + (given ? 1 : static_cast<unsigned long>(count)); ++seed) {
        std::mt19937_64 random(seed);
        World world;
        Order<World> order;
        std::string wrong;
        while (order.size() < length && wrong.empty()) {
            const auto event = static_cast<typename World::Event>(random() % World::eventCount);
            if (!world.happen(event)) {
                if (random() % 64 == 0) break; // nothing may be possible any more
                continue;
            }
            order.push_back(event);
            wrong = world.wrongNow();
        }
        if (wrong.empty()) wrong = world.wrongInTheEnd();
        ASSERT_EQ(wrong, "") << "TESSARY_SEED=" << seed << ": " << written<World>(order);
    }
}

} // namespace

TEST(OrderTest, EveryShortOrderOfASession) {
    using S = SessionWorld;
    EXPECT_GT(playAll<S>({S::start}, 8), 1000);
    EXPECT_GT(playAll<S>({S::start, S::sessionQueue, S::acceptControl, S::mainThread, S::sessionQueue}, 5),
              1000);
    EXPECT_GT(playAll<S>({S::start, S::mainThread, S::sessionQueue, S::acceptControl, S::mainThread,
                          S::sessionQueue, S::acceptData},
                         5),
              1000);
}

TEST(OrderTest, EveryShortOrderOfADialer) {
    using D = DialerWorld;
    EXPECT_GT(playAll<D>({}, 4), 1000);
    EXPECT_GT(
        playAll<D>({D::mainThread, D::sessionQueue, D::mainThread, D::acceptControl, D::sessionQueue}, 4),
        1000);
}

TEST(OrderTest, EveryMixtureOfABusyMainThreadAndAPeer) {
    using S = SessionWorld;
    const Order<S> peer{S::sessionQueue, S::acceptControl, S::sessionQueue, S::acceptData, S::clock, S::midi};
    for (const auto last : {S::stop, S::mainThread})
        EXPECT_EQ(playMixed<S>({S::start, S::mainThread, S::mainThread, S::mainThread, last, S::letGo}, peer),
                  924);
    for (const auto end : {S::byeControl, S::rejectControl, S::byeData, S::rejectData}) {
        Order<S> ending = peer;
        ending.push_back(end);
        EXPECT_EQ(playMixed<S>({S::start, S::mainThread, S::mainThread, S::mainThread, S::stop}, ending),
                  792);
    }
    using D = DialerWorld;
    EXPECT_EQ(
        playMixed<D>({D::mainThread, D::mainThread, D::reconnect, D::mainThread, D::mainThread, D::second},
                     {D::sessionQueue, D::acceptControl, D::sessionQueue, D::acceptData, D::clock,
                      D::byeControl, D::lateBye}),
        1716);
    EXPECT_EQ(playMixed<D>(
                  {D::mainThread, D::leave, D::mainThread, D::appear, D::mainThread, D::mainThread},
                  {D::sessionQueue, D::acceptControl, D::sessionQueue, D::acceptData, D::clock, D::byeData}),
              924);
}

TEST(OrderTest, LongRandomOrders) {
    playRandomly<SessionWorld>(5000, 60);
    playRandomly<DialerWorld>(5000, 60);
}
