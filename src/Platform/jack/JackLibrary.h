// libjack, loaded when it is needed.
#pragma once

#include <jack/jack.h>
#include <jack/midiport.h>

namespace tessary {

/// The functions of libjack that the output uses, under their names without `jack_`.
struct JackLibrary {
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define TESSARY_JACK_FUNCTIONS(FUNCTION)                                                                     \
    FUNCTION(set_error_function)                                                                             \
    FUNCTION(set_info_function)                                                                              \
    FUNCTION(client_open)                                                                                    \
    FUNCTION(client_close)                                                                                   \
    FUNCTION(on_shutdown)                                                                                    \
    FUNCTION(set_process_callback)                                                                           \
    FUNCTION(activate)                                                                                       \
    FUNCTION(port_register)                                                                                  \
    FUNCTION(port_get_buffer)                                                                                \
    FUNCTION(midi_clear_buffer)                                                                              \
    FUNCTION(midi_event_reserve)                                                                             \
    FUNCTION(midi_get_event_count)                                                                           \
    FUNCTION(get_cycle_times)                                                                                \
    FUNCTION(get_time)
#define TESSARY_DECLARE(name) decltype(&jack_##name) name = nullptr; // NOLINT(bugprone-macro-parentheses)
    TESSARY_JACK_FUNCTIONS(TESSARY_DECLARE)
#undef TESSARY_DECLARE

    /// Loads the library at the first call, so that a machine without JACK needs no libjack, and one with a
    /// sequencer does not spend two megabytes on it. Null if it is not installed. It stays loaded.
    ///
    /// Runs on: any thread.
    static const JackLibrary* load();
};

} // namespace tessary
