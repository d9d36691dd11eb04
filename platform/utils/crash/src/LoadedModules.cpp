#include "LoadedModules.h"

#include <elf.h>

#include <algorithm>
#include <cstring>

namespace kova::utils {
namespace {

constexpr char kOwner[] = "GNU";
constexpr std::string_view kOwnerName(kOwner, sizeof kOwner);  // including the final NUL

constexpr std::size_t padded(std::size_t size) {
  return (size + 3) & ~std::size_t{3};
}

}  // namespace

std::string_view findBuildId(std::string_view notes) {
  ElfW(Nhdr) note;
  while (notes.size() >= sizeof note) {
    std::memcpy(&note, notes.data(), sizeof note);
    notes.remove_prefix(sizeof note);
    const std::size_t name = padded(note.n_namesz);
    const std::size_t size = name + padded(note.n_descsz);
    if (size > notes.size()) break;
    if (note.n_type == NT_GNU_BUILD_ID && notes.substr(0, note.n_namesz) == kOwnerName) {
      return notes.substr(name, note.n_descsz);
    }
    notes.remove_prefix(size);
  }
  return {};
}

void LoadedModules::record() {
  *this = LoadedModules();
  dl_iterate_phdr(add, this);
}

const LoadedModules::Module* LoadedModules::find(std::uintptr_t address) const {
  const auto* const end = modules_.data() + count_;
  const auto* const found = std::find_if(modules_.data(), end, [address](const Module& module) {
    return module.begin <= address && address < module.end;
  });
  return found != end ? found : nullptr;
}

int LoadedModules::add(dl_phdr_info* info, std::size_t /*size*/, void* self) {
  auto& loaded = *static_cast<LoadedModules*>(self);
  loaded.addModule(*info);
  return 0;
}

void LoadedModules::addModule(const dl_phdr_info& info) {
  if (count_ == modules_.size()) return;
  const bool isFirst = count_ == 0;
  Module module{UINTPTR_MAX, info.dlpi_addr, info.dlpi_addr};
  for (const ElfW(Phdr)* part = info.dlpi_phdr; part != info.dlpi_phdr + info.dlpi_phnum; ++part) {
    const std::uintptr_t begin = info.dlpi_addr + part->p_vaddr;
    if (part->p_type == PT_LOAD) {
      module.begin = std::min(module.begin, begin);
      module.end = std::max(module.end, begin + part->p_memsz);
    } else if (part->p_type == PT_NOTE && isFirst) {
      const std::string_view notes(reinterpret_cast<const char*>(begin), part->p_memsz);
      for (const char byte : findBuildId(notes)) buildId_.appendByte(byte);
    }
  }
  modules_[count_++] = module;
}

}  // namespace kova::utils
