#include "Platform/jack/JackLibrary.h"

#include <dlfcn.h>

namespace tessary {

namespace {

template <typename Function>
bool find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

} // namespace

const JackLibrary* JackLibrary::load() {
    static const JackLibrary* const loaded = []() -> const JackLibrary* {
        static JackLibrary jack;
        void* const library = dlopen("libjack.so.0", RTLD_NOW | RTLD_LOCAL);
        bool isComplete = library != nullptr;
#define TESSARY_FIND(name) isComplete = isComplete && find(library, "jack_" #name, jack.name);
        TESSARY_JACK_FUNCTIONS(TESSARY_FIND)
#undef TESSARY_FIND
        return isComplete ? &jack : nullptr;
    }();
    return loaded;
}

} // namespace tessary
