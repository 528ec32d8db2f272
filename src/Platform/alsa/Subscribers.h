// The subscribers of a sequencer port, and the free room of their queues.
#pragma once

#include <vector>

namespace tessary {

struct Subscriber {
    int client = 0;
    /// Whether the kernel reports the free room of its queue. It does not for kernel clients such as hardware
    /// ports, which accept messages at the rate of a MIDI cable.
    bool tellsRoom = false;
    int room = 0; ///< free cells of its queue
    int size = 0; ///< all cells of its queue
};

/// Returns the clients that are subscribed to a port.
///
/// @param sequencer  the descriptor of an open sequencer
/// Runs on: any thread. Errors: a subscriber that cannot be queried is left out.
std::vector<Subscriber> subscribersOf(int sequencer, int client, int port);

} // namespace tessary
