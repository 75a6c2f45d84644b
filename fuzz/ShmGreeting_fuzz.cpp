// ShmGreeting_fuzz.cpp - a stranger sends bytes and descriptors to an acceptor, which must welcome
// it, take nothing but a right greeting, answer, and keep no descriptor.
#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "PassDescriptors.h"
#include "TempRoot.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/FileDescriptor.h"

namespace {

using fshmipc::IAWShmIPCTransport;
using keelbase::internal::FileDescriptor;

constexpr std::uint32_t kRing = 64 * 1024;

void Check(bool condition) {
  if (!condition) std::abort();
}

class Sink final : public fshmipc::IAWShmIPCAcceptorConnectorSink {
 public:
  void OnShmIPCConnectIndication(long reason, IAWShmIPCTransport* transport,
                                 fshmipc::IAWShmIPCAcceptorConnectorId*) override {
    Check(reason == 0 && transport != nullptr);
    ++count;
  }
  int count = 0;
};

// An acceptor that listens as long as the process lives.
struct Endpoint {
  Endpoint() {
    using keelbase::CAWThreadManager;
    auto* manager = CAWThreadManager::Instance();
    Check(manager->AdoptCurrentThread(CAWThreadManager::TT_NETWORK) == keelbase::AW_OK);
    network = manager->GetThread(CAWThreadManager::TT_NETWORK);
    fshmipc::CAWShmIPCManager::Instance()->SetSystemPath(directory.GetPath());
    Check(fshmipc::CAWShmIPCManager::Instance()->CreateAcceptor(acceptor) == keelbase::AW_OK);
    Check(acceptor->StartListen(&sink, fshmipc::CAWShmIPCAddr(1, 2)) == keelbase::AW_OK);
    address.sun_family = AF_UNIX;
    const std::string path = directory.GetPath() + "/zarn/shmipc/1_2";
    std::memcpy(address.sun_path, path.data(), path.size());
  }
  void Turn() {
    while (network->TEST_RunReady()) {
    }
  }

  zarn::test::TempDir directory;
  Sink sink;
  keelbase::CAWThread* network = nullptr;
  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor;
  sockaddr_un address{};
};

Endpoint& TheEndpoint() {
  static Endpoint& endpoint = *new Endpoint;
  return endpoint;
}

FileDescriptor Memory(FuzzedDataProvider& input) {
  FileDescriptor file(::memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const off_t wrong = input.ConsumeIntegral<std::uint16_t>();
  const bool right = input.ConsumeBool();
  Check(::ftruncate(file.Get(), right ? 4096 + 2 * off_t{kRing} : wrong) == 0);
  const int all = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
  const bool reserved = input.ConsumeBool();
  Check(!reserved || !right || ::fallocate(file.Get(), 0, 0, 4096 + 2 * off_t{kRing}) == 0);
  ::fcntl(file.Get(), F_ADD_SEALS, input.ConsumeBool() ? all : input.ConsumeIntegralInRange(0, 15));
  return file;
}

// Bytes of the input, often behind the start of a right greeting.
std::string Bytes(FuzzedDataProvider& input) {
  std::string bytes;
  if (input.ConsumeBool()) bytes = std::string("ZSHM\2\0\3\0\4\0\0\0\0\0\1\0", 16);
  bytes.resize(input.ConsumeIntegralInRange<std::size_t>(0, bytes.size()));
  return bytes + input.ConsumeRandomLengthString(40);
}

bool IsWelcomed(int socket) {
  const std::string welcome("ZSHM\2\0\0\0", 8);
  std::string got(welcome.size(), '?');
  ::recv(socket, got.data(), got.size(), MSG_DONTWAIT);
  return got == welcome;
}

// The lowest free descriptor: the same before and after when nothing is left open.
int LowestFree() { return FileDescriptor(::dup(STDERR_FILENO)).Get(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Endpoint& endpoint = TheEndpoint();
  const int lowest = LowestFree();
  const int before = endpoint.sink.count;
  FuzzedDataProvider input(data, size);
  {
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* address = reinterpret_cast<const sockaddr*>(&endpoint.address);
    Check(::connect(socket.Get(), address, sizeof endpoint.address) == 0);
    const FileDescriptor memory = Memory(input);
    for (int sends = input.ConsumeIntegralInRange(1, 3); sends > 0; --sends) {
      const std::vector<int> passed(input.ConsumeIntegralInRange<std::size_t>(0, 12), memory.Get());
      const std::string bytes = Bytes(input);
      zarn::test::SendWithDescriptors(socket.Get(), bytes.data(), bytes.size(), passed);
      if (input.ConsumeBool()) endpoint.Turn();
    }
    endpoint.Turn();
    Check(IsWelcomed(socket.Get()));
  }
  endpoint.Turn();
  Check(endpoint.sink.count <= before + 1);
  Check(LowestFree() == lowest);
  return 0;
}
