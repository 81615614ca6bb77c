#include "host/linux/crash/frame_unwind.h"

#include <algorithm>
#include <cstring>

#include "host/linux/crash/module_files.h"

namespace morvik::host {
namespace {

// The stack belongs to the only thread of a process that is gone. Any number does.
constexpr pid_t kRecordedProcess = 1;

/// What libdw asks for.
struct Stopped {
  std::vector<uint64_t> registers;
  uint64_t instruction = 0;
  uint64_t stack_pointer = 0;
  const std::string& stack;

  bool read(uint64_t address, uint64_t& word) const {
    const uint64_t offset = address - stack_pointer;
    if (address < stack_pointer || stack.size() < sizeof word || offset > stack.size() - sizeof word)
      return false;
    std::memcpy(&word, stack.data() + offset, sizeof word);
    return true;
  }
};

#if defined(__x86_64__)
constexpr size_t kStackRegister = 7;
constexpr size_t kInstructionRegister = 16;

/// A call to an address without code has only pushed the return address.
bool undoCall(Stopped& stopped) {
  if (!stopped.read(stopped.stack_pointer, stopped.instruction))
    return false;
  stopped.registers[kStackRegister] += sizeof(uint64_t);
  stopped.registers[kInstructionRegister] = stopped.instruction;
  return true;
}
#elif defined(__aarch64__)
constexpr size_t kLinkRegister = 30;

bool undoCall(Stopped& stopped) {
  stopped.instruction = stopped.registers[kLinkRegister];
  return true;
}
#endif

pid_t nextThread(Dwfl*, void* stopped, void** thread) {
  // NULL at the first call.
  if (*thread != nullptr)
    return 0;
  *thread = stopped;
  return kRecordedProcess;
}

bool getThread(Dwfl*, pid_t, void* stopped, void** thread) {
  *thread = stopped;
  return true;
}

bool readMemory(Dwfl*, Dwarf_Addr address, Dwarf_Word* word, void* stopped) {
  uint64_t found = 0;
  const bool is_there = static_cast<const Stopped*>(stopped)->read(address, found);
  *word = found;
  return is_there;
}

bool setRegisters(Dwfl_Thread* thread, void* of) {
  const auto& stopped = *static_cast<const Stopped*>(of);
  const std::vector<Dwarf_Word> registers(stopped.registers.begin(), stopped.registers.end());
  dwfl_thread_state_register_pc(thread, stopped.instruction);
  return dwfl_thread_state_registers(thread, 0, static_cast<unsigned>(registers.size()), registers.data());
}

constexpr Dwfl_Thread_Callbacks kThreadCallbacks = {nextThread, getThread, readMemory, setRegisters, nullptr, nullptr};

int takeFrame(Dwfl_Frame* frame, void* found) {
  auto& frames = *static_cast<std::vector<uint64_t>*>(found);
  Dwarf_Addr address = 0;
  if (frames.size() == kMaxCrashFrames || !dwfl_frame_pc(frame, &address, nullptr))
    return DWARF_CB_ABORT;
  frames.push_back(address);
  return DWARF_CB_OK;
}

}  // namespace

std::vector<uint64_t> unwoundFrames(const std::vector<LoadedModule>& modules, const SignalRecord& record) {
  if (record.registers.empty() || record.stack.empty())
    return record.frames;
  Stopped stopped{record.registers, record.frames.front(), record.stack_pointer, record.stack};
  std::vector<uint64_t> frames;
  if (record.is_jump_to_nowhere) {
    frames.push_back(stopped.instruction);
    if (!undoCall(stopped))
      return record.frames;
  }
  ModuleFiles files;
  for (const LoadedModule& module : modules)
    static_cast<void>(files.of(module));
  if (files.session() == nullptr ||
      !dwfl_attach_state(files.session(), nullptr, kRecordedProcess, &kThreadCallbacks, &stopped))
    return record.frames;
  static_cast<void>(dwfl_getthread_frames(files.session(), kRecordedProcess, takeFrame, &frames));
  if (frames.size() <= 1)
    return record.frames;
  // The kept part of the stack may end early.
  const auto met = std::find(record.frames.begin() + 1, record.frames.end(), frames.back());
  if (met != record.frames.end())
    frames.insert(frames.end(), met + 1, record.frames.end());
  frames.resize(std::min(frames.size(), kMaxCrashFrames));
  return frames;
}

}  // namespace morvik::host
