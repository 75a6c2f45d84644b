// zarnutils.h - install root, environment, IPC factories, endpoint names and numbers.
//
// Free functions without locks. Those that read the environment must not run while another thread
// sets a variable; the others may be called from any thread unless said otherwise. What returns a
// value lets std::bad_alloc pass; what returns a result code answers 10001 instead.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "fipc/CAWIPCManager.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWString.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

class CZARNShareMemory;

// --- start and install root ---

// Called once by each process, from its main thread. 0; 10001 when "ZARN_ROOT" is unset or empty,
// or its directory "system" does not exist. Tells the shared-memory manager where endpoints meet.
// May be called again after the environment has changed.
ZARNUTILS_API keelbase::AWResult ZARNLibInit();
ZARNUTILS_API keelbase::AWResult ZARNLibUnInit();  // always 0; releases nothing

// The install root is the value of "ZARN_ROOT"; there is no default. All of these are empty when it
// is unset or empty. The first three are real paths, without symbolic links, and empty when the
// directory does not exist.
ZARNUTILS_API keelbase::CAWString GetZARNRoot();
ZARNUTILS_API keelbase::CAWString GetZARNRootBin();
ZARNUTILS_API keelbase::CAWString GetZARNRootSystem();

// These need not exist: the variable's text with "/libs", "/logs" or "/config" behind it.
ZARNUTILS_API keelbase::CAWString GetZARNRootlibs();
ZARNUTILS_API keelbase::CAWString GetZARNRootLogs();
ZARNUTILS_API keelbase::CAWString GetZARNRootConfig();

// --- environment and text ---

// Replaces "{NAME}" by the value of the environment variable NAME, once, and drops what stands
// before it: "x{HOME}/y" gives "/root/y". NAME reaches from the first '{' to the last '}'. A text
// that lacks one of the two comes back as it is; "}{" gives an empty string.
ZARNUTILS_API keelbase::CAWString GetEnvToString(const keelbase::CAWString& text);

// What vsnprintf answers: the length of the formatted text without its terminator, negative for an
// error, such as a wide character that no encoding has. `args` may be used again afterwards.
ZARNUTILS_API int c_vscprintf(const char* format, std::va_list args)
    __attribute__((format(printf, 1, 0)));

// The text that vsnprintf writes; empty when c_vscprintf answers an error, and without memory.
// `args` may be used again afterwards.
ZARNUTILS_API keelbase::CAWString VAToString(const char* format, std::va_list args)
    __attribute__((format(printf, 1, 0)));

// Puts `dir` at the end of "LD_LIBRARY_PATH", also when it is listed already. Counts for children;
// the process's own loader has read the variable when it started. 0; 10001 without memory, and
// nothing has changed.
ZARNUTILS_API keelbase::AWResult SetLDLibraryPath(const keelbase::CAWString& dir);

// The local address from which the system would send to `peer`; sends nothing. 0.0.0.0 when there
// is no way to it. Its port has no meaning.
ZARNUTILS_API keelbase::CAWInetAddr GetLocalIPAddr(const keelbase::CAWInetAddr& peer);

// --- local IPC ---

// A new connector or acceptor in place of what `out` held; callbacks come on the calling thread
// when that is a platform thread, else on the network thread. The manager's result; on failure out
// is null.
ZARNUTILS_API keelbase::AWResult CreateIPCClient(keelbase::CAWAutoPtr<fipc::IAWIPCConnector>& out);
ZARNUTILS_API keelbase::AWResult CreateIPCServer(keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor>& out);

// The same over shared memory, once ZARNLibInit has answered 0.
ZARNUTILS_API keelbase::AWResult CreateShmIPCClient(
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCConnector>& out);
ZARNUTILS_API keelbase::AWResult CreateShmIPCServer(
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor>& out);

// The address of the local IPC endpoint of a pair of numbers: the file "/zarn/ipc/<b>_<a>" below
// the system directory, b first. Makes the directories. 0; 10001 (out unchanged) without a system
// directory.
ZARNUTILS_API keelbase::AWResult ZARNCreateIPCAddr(std::uint16_t a, std::uint16_t b,
                                                   keelbase::CAWIPCAddr& out);

// The way back: the pair that ZARNCreateIPCAddr was given, also when the endpoint's file does not
// exist (any more). The name is read from its start as <b>_<a>, up to the first character that does
// not fit, and a number that is not reached is 0: "7x_8" gives b 7 and a 0, "7_8x" both. Numbers
// beyond 16 bits give their low 16, as long as they are below 2^63. 0; 10001 (both unchanged)
// without a system directory and for a path that cannot lie below it. A path elsewhere is not
// recognised as such and gives any numbers.
ZARNUTILS_API keelbase::AWResult ZARNFromIPCAddr(std::uint16_t& a, std::uint16_t& b,
                                                 const keelbase::CAWIPCAddr& addr);

// --- shared memory ---

// A handle on the memory segment of that name, which it makes or attaches, in place of what `out`
// held; zarn/utils/CZARNShareMemory.h has what goes for it. 0; 10001, with `out` as it was: size 0
// or not below 4 GiB, an empty name, no system directory, or the segment cannot be had. After that
// last one the segment's file is gone, also when it was somebody else's.
ZARNUTILS_API keelbase::AWResult CreateMemory(keelbase::CAWAutoPtr<CZARNShareMemory>& out,
                                              const keelbase::CAWString& name, std::size_t size);

// --- numbers ---

// Job number: low in bits 0 to 15, high in bits 16 to 31.
ZARNUTILS_API std::uint32_t MakeJno(std::uint16_t low, std::uint16_t high);
ZARNUTILS_API void FromJno(std::uint32_t jno, std::uint16_t& low, std::uint16_t& high);

// Keys for lookup tables, different for different endpoints: the first number of the address, or of
// the endpoint's name, in bits 0 to 15, the second in bits 16 to 31. A path that
// ZARNFromIPCAddr refuses, and a name that begins with no number, give 0. The directory's text is
// not compared: a path elsewhere of the same length and form gives the key of its numbers.
ZARNUTILS_API std::uint32_t GetHashKey(const fshmipc::CAWShmIPCAddr& addr);
ZARNUTILS_API std::uint32_t GetHashKey(const keelbase::CAWIPCAddr& addr);

// Short random texts: neither unique nor secret. One thread at a time; uuid4_init first, once,
// which answers 0, or -1 when the system gave no random bytes. uuid4_generate writes 13 bytes to
// `dst`: twelve random hex digits, of which each that is no decimal one is a zero, and a zero. So
// the text ends at the first of those, and may be empty.
ZARNUTILS_API int uuid4_init();
ZARNUTILS_API void uuid4_generate(char* dst);

}  // namespace zarn::utils
