// libjack, without which the program starts as well.
#pragma once

#include <jack/jack.h>
#include <jack/midiport.h>

namespace tessary {

/// The functions of libjack that the output uses, under their names without `jack_`.
struct JackLibrary {
    decltype(&jack_set_error_function) set_error_function;
    decltype(&jack_set_info_function) set_info_function;
    decltype(&jack_client_open) client_open;
    decltype(&jack_client_close) client_close;
    decltype(&jack_on_shutdown) on_shutdown;
    decltype(&jack_set_process_callback) set_process_callback;
    decltype(&jack_activate) activate;
    decltype(&jack_deactivate) deactivate;
    decltype(&jack_port_register) port_register;
    decltype(&jack_port_unregister) port_unregister;
    decltype(&jack_port_get_buffer) port_get_buffer;
    decltype(&jack_midi_clear_buffer) midi_clear_buffer;
    decltype(&jack_midi_event_reserve) midi_event_reserve;
    decltype(&jack_midi_get_event_count) midi_get_event_count;
    decltype(&jack_get_cycle_times) get_cycle_times;
    decltype(&jack_get_time) get_time;

    /// Loads the library at the first call: where the sequencer serves, its two megabytes are never touched,
    /// and a machine need not have it. Null if it is not there. It stays loaded.
    ///
    /// Runs on: any thread.
    static const JackLibrary* load();
};

} // namespace tessary
