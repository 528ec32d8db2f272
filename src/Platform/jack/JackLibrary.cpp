#include "Platform/jack/JackLibrary.h"

#include <dlfcn.h>

namespace tessary {

namespace {

template <typename Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

bool findAll(void* library, JackLibrary& jack) {
    return find(library, "jack_set_error_function", jack.set_error_function) &&
           find(library, "jack_set_info_function", jack.set_info_function) &&
           find(library, "jack_client_open", jack.client_open) &&
           find(library, "jack_client_close", jack.client_close) &&
           find(library, "jack_on_shutdown", jack.on_shutdown) &&
           find(library, "jack_set_process_callback", jack.set_process_callback) &&
           find(library, "jack_activate", jack.activate) &&
           find(library, "jack_deactivate", jack.deactivate) &&
           find(library, "jack_port_register", jack.port_register) &&
           find(library, "jack_port_unregister", jack.port_unregister) &&
           find(library, "jack_port_get_buffer", jack.port_get_buffer) &&
           find(library, "jack_midi_clear_buffer", jack.midi_clear_buffer) &&
           find(library, "jack_midi_event_reserve", jack.midi_event_reserve) &&
           find(library, "jack_midi_get_event_count", jack.midi_get_event_count) &&
           find(library, "jack_get_cycle_times", jack.get_cycle_times) &&
           find(library, "jack_get_time", jack.get_time);
}

} // namespace

const JackLibrary* JackLibrary::load() {
    static const JackLibrary* const loaded = []() -> const JackLibrary* {
        static JackLibrary jack;
        void* const library = dlopen("libjack.so.0", RTLD_NOW | RTLD_LOCAL);
        return library && findAll(library, jack) ? &jack : nullptr;
    }();
    return loaded;
}

} // namespace tessary
