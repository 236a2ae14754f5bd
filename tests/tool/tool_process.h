// Runs the built qltfs from a test as a person runs it: an argument vector,
// a few environment settings, its output in files, its exit code back. No
// shell is involved, so the same test runs on Linux and on Windows.
#ifndef QLTFSDK_TESTS_TOOL_TOOL_PROCESS_H
#define QLTFSDK_TESTS_TOOL_TOOL_PROCESS_H

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "qltfsdk/wintypes.h"  // HANDLE and DWORD: the system's own on Windows

#if !defined(_WIN32)
#include <sys/types.h>
#endif

// How to start the tool. Paths and arguments are UTF-8.
struct ToolRun {
  std::vector<std::string> args;  // after the program name
  // Set for the child only; an empty value removes the variable.
  std::vector<std::pair<std::string, std::string>> env;
  std::string outPath, errPath;  // standard output and error; empty: discarded
  // Linux only (no Windows counterpart): a file size limit (writes beyond it
  // fail as on a full disk) and an address-space limit; 0 for none.
  long long nFileSizeLimit = 0;
  long long nMemoryLimit = 0;
  // The child is killed when it runs longer, and Wait answers kNotEnded.
  int nTimeoutSeconds = 60;
};

// One started tool process. Created and used on one thread; the destructor
// kills a child still running and waits for it, so none outlives the test.
class ToolProcess {
 public:
  // Exit code of a child that could not start or was killed at its time-out.
  static constexpr int kNotEnded = -1;
  // What Wait answers for a child ended by an interrupt it did not handle
  // (a shell's 128 + SIGINT on Linux; the system's Ctrl-C status on Windows).
#if defined(_WIN32)
  static constexpr int kEndedByInterrupt = static_cast<int>(0xC000013A);
#else
  static constexpr int kEndedByInterrupt = 130;
#endif

  explicit ToolProcess(const ToolRun& run);
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  bool Started() const;
  // Interrupts the child as Ctrl-C does: SIGINT on Linux, Ctrl-Break to its
  // own process group on Windows (Ctrl-C cannot be sent to one group there).
  // False when it cannot be sent: on Windows when this process shares no
  // console with the child, and always under Wine 8, which delivers no
  // console event to a process group.
  bool Interrupt();
  // Waits for the end (bounded by the run's time-out) and returns the exit
  // code: 128 + the signal for a child ended by a signal on Linux, the
  // process's exit code on Windows, kNotEnded after a time-out kill.
  int Wait();

 private:
  int m_nTimeoutSeconds;
  int m_nExit = kNotEnded;
  bool m_bWaited = false;
#if defined(_WIN32)
  HANDLE m_hProcess = nullptr;
  DWORD m_nProcessId = 0;
#else
  pid_t m_pid = -1;
#endif
};

// Starts the tool, waits for it and returns its exit code (see Wait).
int RunTool(const ToolRun& run);

// The environment settings that put the tool's temporary folder into dir:
// TMPDIR on Linux, TMP and TEMP on Windows.
std::vector<std::pair<std::string, std::string>> TempFolderEnv(const std::string& dir);

// What the tool wrote to path (its output or error file), with Windows line
// ends ("\r\n", which its text-mode output writes there) made "\n".
std::string ReadToolOutput(const std::string& path);

// The null device's name on this system.
const char* NullDevice();

// A UTF-8 path as the standard library's path type (on Windows the
// standard library reads narrow names in the ANSI code page).
std::filesystem::path NativePathOf(const std::string& path);

// Linux has what some rows of the tests need and Windows lacks: FIFOs, file
// size limits (ToolRun::nFileSizeLimit), symbolic links a test can always
// make (Wine makes none).
#if defined(_WIN32)
constexpr bool kLinux = false;
#else
constexpr bool kLinux = true;
#endif

// Makes a FIFO at path; false on failure and on Windows.
bool MakeFifo(const std::string& path);

// A folder of the virtual storage for one test, removed with what is in it
// when the object goes away. On Linux the storage lies under the tool's
// temporary folder (see TempFolderEnv); on Windows under its fixed root.
class VirtualFolder {
 public:
  VirtualFolder();
  ~VirtualFolder();
  VirtualFolder(const VirtualFolder&) = delete;
  VirtualFolder& operator=(const VirtualFolder&) = delete;
  // The tool's name of a file in the folder: "qvf:\<folder>\<name>".
  std::string Path(const std::string& name) const { return "qvf:\\" + m_strFolder + "\\" + name; }

 private:
  std::string m_strFolder;
};

#endif  // QLTFSDK_TESTS_TOOL_TOOL_PROCESS_H
