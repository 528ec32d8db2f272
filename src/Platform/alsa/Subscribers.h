// Who listens to a port of the sequencer, and how much room they have.
#pragma once

#include <vector>

namespace tessary {

struct Subscriber {
    int client = 0;
    /// Whether the kernel tells its room. It does not of a client of its own, such as a hardware port, which
    /// takes what a MIDI cable carries.
    bool tellsRoom = false;
    int room = 0; ///< of its queue, in cells of the sequencer
    int size = 0; ///< of the whole queue, in cells
};

/// Those that a port sends to.
///
/// @param sequencer  the descriptor of an open sequencer
/// Runs on: any thread. Errors: a subscriber that cannot be asked is left out.
std::vector<Subscriber> subscribersOf(int sequencer, int client, int port);

} // namespace tessary
