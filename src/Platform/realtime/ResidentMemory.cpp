#include "Platform/realtime/ResidentMemory.h"

#include <array>
#include <bit>
#include <cstdint>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tessary {

namespace {

/// The deepest call on the packet path needs a few kilobytes, including the sending of a session packet.
constexpr std::size_t stackSize = std::size_t{32} * 1024;

} // namespace

void keepResident(void* memory, std::size_t size) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(memory) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(memory) + size + page - 1) & ~(page - 1);
    auto* const start = static_cast<char*>(memory) - (reinterpret_cast<std::uintptr_t>(memory) - begin);
    if (mlock(start, end - begin) == 0) return;
    if (madvise(start, end - begin, MADV_POPULATE_WRITE) !=
        0) // it is code, or the kernel knows no such advice
        madvise(start, end - begin, MADV_POPULATE_READ);
}

void keepStackResident() {
    std::array<char, stackSize> stack; // its pages may not be there yet
    keepResident(stack.data(), stack.size());
}

void keepProgramResident() {
    dl_iterate_phdr(
        [](dl_phdr_info* program, std::size_t, void*) {
            for (std::size_t i = 0; i < program->dlpi_phnum; ++i) {
                const ElfW(Phdr)& segment = program->dlpi_phdr[i];
                if (segment.p_type == PT_LOAD && (segment.p_flags & (PF_X | PF_W)) != 0)
                    keepResident(std::bit_cast<void*>(program->dlpi_addr + segment.p_vaddr), segment.p_memsz);
            }
            return 1; // the first is the program itself
        },
        nullptr);
}

} // namespace tessary
