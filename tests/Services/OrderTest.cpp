// Orders of events between the main thread, a session's queue, the peer and the user. What must hold does not
// depend on the order; what the order decides is taken from a model whose states are stored at once.
#include "support/World.h"

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

/// The reports that no order may change: a late main thread may pass over two of the states on the way.
std::vector<Case> essence(std::vector<Case> reports) {
    std::erase_if(reports, [](Case each) { return each == Case::invitingData || each == Case::syncing; });
    return reports;
}

enum class Subject { session, dialer };

/// A session with the model beside it, or the dialer with one peer.
struct OrderWorld : World {
    explicit OrderWorld(Subject subject) {
        if (subject == Subject::dialer) {
            appear("10.0.0.2");
            startDialer();
            return;
        }
        session = makeSession();
        session->stateDidChange = [this](const RTPMIDISession::State& state) {
            reports.push_back(state.which);
            if (state.which == Case::failed) reasons.push_back(state.reason);
            if (!session) contradiction = "a report after release";
        };
        session->midiPacketReceived = [this](auto packet) { bridge->handleRTPMIDIPacket(packet); };
    }

    bool see(const std::vector<std::string>& names) {
        if (!dialer) return false;
        serviceDiscovery.browser("_apple-midi._udp").see(names);
        while (serviceDiscovery.queue->runOne()) {
        }
        // The resolution takes no time, so that only the main thread is late.
        mainQueue->post([this] {
            for (const auto& resolver : std::vector(serviceDiscovery.resolvers))
                if (!resolver->isStopped) resolver->succeed({"10.0.0.2"}, 5004);
        });
        return true;
    }
    bool play() {
        const bool happened = arrive(51205, midi);
        expectedMessages += happened;
        return happened;
    }

    std::string wrongInTheEnd() {
        const std::string wrong = dialer ? wrongWithDialer() : wrongWithSession();
        if (!wrong.empty()) return wrong;
        return midiOutput.messages.size() == expectedMessages ? "" : "MIDI was lost";
    }

    ModelSession model;
    std::shared_ptr<RTPMIDISession> session;
    std::vector<Case> reports;
    std::vector<std::string> reasons;
    std::size_t expectedMessages = 0;

  private:
    std::string wrongWithSession() {
        const bool isHeld = session != nullptr;
        time.advance(200ms);
        if (const auto wrong = wrongNow(); !wrong.empty()) return wrong;
        if (!isHeld) return {}; // reports that were pending at the release are lost
        if (session->state().which != model.state) return "it ends in another state";
        if (essence(reports) != essence(model.reports)) return "other reports";
        if (reasons != model.reasons) return "other reasons";
        for (const auto& each : network.connections)
            if (each->isOpen && (each->isEnded() || !model.hasControl)) return "a connection is left open";
        return {};
    }
    /// After calm the peer plays again, if it is there and the dialer may dial.
    std::string wrongWithDialer() {
        if (const auto wrong = wrongAtRest(); !wrong.empty()) return wrong;
        acceptOn(51204);
        time.advance(1ms);
        acceptOn(51205);
        arrive(51205, clock);
        time.advance(1ms);
        if (const auto wrong = wrongNow(); !wrong.empty()) return wrong;
        for (const auto& [ip, isRunning] : sessions)
            if (!isRunning) return ip + " does not play again";
        return wrongAfterRelease();
    }
};

struct Event {
    const char* name;
    bool (*happen)(OrderWorld&); ///< false if it cannot happen now, which changes nothing
    void (*onModel)(ModelSession&) = nullptr;
};

using W = OrderWorld;
using M = ModelSession;
const std::vector<Event> events{
    {"main", [](W& w) { return w.mainQueue->runOne(); }}, // the main thread runs one piece of its work
    {"queue", [](W& w) { return w.network.lastQueue && w.network.lastQueue->runOne(); }},
    {"accept control", [](W& w) { return w.acceptOn(51204); }, [](M& m) { m.acceptControl(); }},
    {"accept data", [](W& w) { return w.acceptOn(51205); }, [](M& m) { m.acceptData(); }},
    {"reject control", [](W& w) { return w.arrive(51204, W::reject); },
     [](M& m) { m.peerEnds("control invitation rejected"); }},
    {"reject data", [](W& w) { return w.arrive(51205, W::reject); },
     [](M& m) { m.peerEnds("data invitation rejected"); }},
    {"bye control", [](W& w) { return w.arrive(51204, W::bye); }, [](M& m) { m.peerEnds("peer sent BYE"); }},
    {"bye data", [](W& w) { return w.arrive(51205, W::bye); },
     [](M& m) { m.peerEnds("peer BYE on data port"); }},
    {"late bye", [](W& w) { return w.arrive(51204, W::bye, true); },
     [](M& m) { m.peerEnds("peer sent BYE"); }},
    {"clock", [](W& w) { return w.arrive(51205, W::clock); }, [](M& m) { m.clock(); }},
    {"midi", [](W& w) { return w.play(); }},
    // Of a session alone: its owner starts it when it is known to be idle, and stops it before letting it go.
    {"start",
     [](W& w) {
         return w.session && w.model.state == Case::idle && w.mainQueue->waiting() == 0 &&
                (w.session->start(), true);
     },
     [](M& m) { m.start(); }},
    {"stop", [](W& w) { return w.session && w.model.state != Case::idle && (w.session->stop(), true); },
     [](M& m) { m.stop(); }},
    {"let go", [](W& w) { return w.session && !w.model.hasControl && (w.session.reset(), true); }},
    // Of the dialer.
    {"reconnect", [](W& w) { return w.dialer && (w.reconnect(), true); }},
    {"freeze", [](W& w) { return w.dialer && (w.setAutoConnect(false), true); }},
    {"unfreeze", [](W& w) { return w.dialer && (w.setAutoConnect(true), true); }},
    {"leave", [](W& w) { return w.see({}); }},
    {"appear", [](W& w) { return w.see({"iPad"}); }},
    {"second", [](W& w) { return w.dialer && (w.time.advance(1s), true); }},
};

using Order = std::vector<Event>;

Order order(std::initializer_list<std::string> names) {
    Order found;
    for (const std::string& name : names)
        std::ranges::copy_if(events, std::back_inserter(found),
                             [&](auto& each) { return each.name == name; });
    return found;
}

/// One order, played on a world of its own.
class Play {
  public:
    explicit Play(Subject subject, const Order& beginning = {})
        : world_(subject) {
        for (const Event& event : beginning)
            happen(event);
    }
    /// False if it cannot happen now; what has been played so far can go on with another event.
    bool happen(const Event& event) {
        if (hasFailed_ || !event.happen(world_)) return false;
        if (event.onModel && world_.session) event.onModel(world_.model);
        played_ += std::string(", ") + event.name;
        expectNothing(world_.wrongNow());
        return true;
    }
    void end() {
        if (!hasFailed_) expectNothing(world_.wrongInTheEnd());
    }

  private:
    void expectNothing(const std::string& wrong) {
        hasFailed_ = !wrong.empty();
        EXPECT_EQ(wrong, "") << "after" << played_;
    }

    OrderWorld world_;
    std::string played_;
    bool hasFailed_ = false;
};

/// Plays every order of `length` events behind a beginning, until one fails; returns their number.
int playAll(Subject subject, const Order& beginning, int length, std::unique_ptr<Play> play = nullptr) {
    int count = 0;
    for (const Event& event : events) {
        if (testing::Test::HasFailure()) break;
        if (!play) play = std::make_unique<Play>(subject, beginning);
        if (!play->happen(event)) continue;
        if (length == 1) {
            play->end();
            play.reset();
            ++count;
        } else {
            Order longer = beginning;
            longer.push_back(event);
            count += playAll(subject, longer, length - 1, std::move(play));
        }
    }
    return count;
}

} // namespace

TEST(OrderTest, EveryShortOrderOfASession) {
    EXPECT_GT(playAll(Subject::session, order({"start"}), 8), 1000);
    EXPECT_GT(playAll(Subject::session, order({"start", "queue", "accept control", "main", "queue"}), 5),
              1000);
    EXPECT_GT(playAll(Subject::session,
                      order({"start", "main", "queue", "accept control", "main", "queue", "accept data"}), 5),
              1000);
}

TEST(OrderTest, EveryShortOrderOfTheDialer) {
    EXPECT_GT(playAll(Subject::dialer, {}, 4), 1000);
    EXPECT_GT(playAll(Subject::dialer, order({"main", "queue", "main", "accept control", "queue"}), 4), 1000);
}

TEST(OrderTest, LongRandomOrders) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 10'000 && !HasFailure(); ++i) {
        Play play(i % 2 ? Subject::session : Subject::dialer);
        for (int draws = 0; draws < 180; ++draws)
            play.happen(events[random() % events.size()]);
        play.end();
    }
}
