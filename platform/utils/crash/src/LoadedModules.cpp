#include "LoadedModules.h"

#include <elf.h>

#include <algorithm>
#include <cstring>

namespace kova::utils {
namespace {

constexpr char kOwner[] = "GNU";
constexpr std::string_view kOwnerName(kOwner, sizeof kOwner);  // with the zero byte at its end

constexpr std::size_t padded(std::size_t size) {
  return (size + 3) & ~std::size_t{3};
}

}  // namespace

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
  return loaded.count_ < loaded.modules_.size() ? 0 : 1;
}

void LoadedModules::addModule(const dl_phdr_info& info) {
  const bool isFirst = count_ == 0;
  Module module{UINTPTR_MAX, 0, info.dlpi_addr};
  for (const ElfW(Phdr)* part = info.dlpi_phdr; part != info.dlpi_phdr + info.dlpi_phnum; ++part) {
    const std::uintptr_t begin = info.dlpi_addr + part->p_vaddr;
    if (part->p_type == PT_LOAD) {
      module.begin = std::min(module.begin, begin);
      module.end = std::max(module.end, begin + part->p_memsz);
    } else if (part->p_type == PT_NOTE && isFirst) {
      readBuildId({reinterpret_cast<const char*>(begin), part->p_memsz});
    }
  }
  modules_[count_++] = module;
}

void LoadedModules::readBuildId(std::string_view notes) {
  ElfW(Nhdr) note;
  while (notes.size() >= sizeof note) {
    std::memcpy(&note, notes.data(), sizeof note);
    notes.remove_prefix(sizeof note);
    const std::size_t name = padded(note.n_namesz);
    const std::size_t size = name + padded(note.n_descsz);
    if (size > notes.size()) return;
    if (note.n_type == NT_GNU_BUILD_ID && notes.substr(0, note.n_namesz) == kOwnerName) {
      for (const char byte : notes.substr(name, note.n_descsz)) buildId_.appendByte(byte);
    }
    notes.remove_prefix(size);
  }
}

}  // namespace kova::utils
