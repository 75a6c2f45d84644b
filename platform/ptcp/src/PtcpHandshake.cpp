// PtcpHandshake.cpp - see PtcpHandshake.h.
#include "PtcpHandshake.h"

#include <algorithm>
#include <iterator>

#include "PacketSeal.h"

namespace ptcp {

namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'z', 'p', 't', 1};
constexpr std::array<std::uint8_t, 1> kFinish = {1};
constexpr std::size_t kMaxMessage = 1024;

template <class... Parts>
std::vector<std::uint8_t> Join(const Parts&... parts) {
  std::vector<std::uint8_t> all;
  (all.insert(all.end(), std::begin(parts), std::end(parts)), ...);
  return all;
}

// The transport parameters from `at` on when all of them are there and nothing else is.
enum class Parsed { whole, more, bad };
Parsed FindParams(const std::vector<std::uint8_t>& message, std::size_t at, Bytes& params) {
  if (message.size() < at + 2) return Parsed::more;
  const std::size_t length = std::size_t{message[at]} << 8 | message[at + 1];
  const std::size_t there = message.size() - at - 2;
  if (there > length) return Parsed::bad;
  if (there < length) return Parsed::more;
  params = Bytes(message).subspan(at + 2);
  return Parsed::whole;
}

}  // namespace

void PtcpHandshake::Begin(ngtcp2_conn* conn, bool server, const RandomBits& ours,
                          StreamGaps& gaps) {
  conn_ = conn;
  server_ = server;
  gaps_ = &gaps;
  (server ? serverRandom_ : clientRandom_) = ours;
}

bool PtcpHandshake::SendClientHello() {
  return InstallInitialKeys(ngtcp2::FromCid(*ngtcp2_conn_get_dcid(conn_))) &&
         SendMessage(ngtcp2::kInitialLevel, clientRandom_, true);
}

bool PtcpHandshake::InstallInitialKeys(const ConnectionId& id) {
  initialSendKey_ = InitialKey(id, server_);
  initialReceiveKey_ = InitialKey(id, !server_);
  const ngtcp2_crypto_ctx context = Context();
  ngtcp2_conn_set_initial_crypto_ctx(conn_, &context);
  const auto receive = Aead(initialReceiveKey_);
  const auto send = Aead(initialSendKey_);
  const auto receiveHeader = HeaderCipher(initialReceiveKey_);
  const auto sendHeader = HeaderCipher(initialSendKey_);
  return ngtcp2_conn_install_initial_key(conn_, &receive, kZeroes.data(), &receiveHeader, &send,
                                         kZeroes.data(), &sendHeader, kNonceSize) == 0;
}

bool PtcpHandshake::InstallHandshakeKeys() {
  const std::array<std::uint8_t, 1> fromClient = {2};  // 0 and 1 are those of InitialKey
  const std::array<std::uint8_t, 1> fromServer = {3};
  const auto bits = Join(clientRandom_, serverRandom_);
  sendKey_ = PacketKey(Join(bits, server_ ? fromServer : fromClient));
  receiveKey_ = PacketKey(Join(bits, server_ ? fromClient : fromServer));
  const ngtcp2_crypto_ctx context = Context(gaps_);
  ngtcp2_conn_set_crypto_ctx(conn_, &context);
  const auto receive = Aead(receiveKey_);
  const auto send = Aead(sendKey_);
  const auto receiveHeader = HeaderCipher(receiveKey_);
  const auto sendHeader = HeaderCipher(sendKey_);
  return ngtcp2_conn_install_rx_handshake_key(conn_, &receive, kZeroes.data(), kNonceSize,
                                              &receiveHeader) == 0 &&
         ngtcp2_conn_install_tx_handshake_key(conn_, &send, kZeroes.data(), kNonceSize,
                                              &sendHeader) == 0;
}

bool PtcpHandshake::InstallSendKey() {
  const auto send = Aead(sendKey_);
  const auto header = HeaderCipher(sendKey_);
  return ngtcp2_conn_install_tx_key(conn_, kZeroes.data(), kNonceSize, &send, kZeroes.data(),
                                    kNonceSize, &header) == 0;
}

bool PtcpHandshake::InstallReceiveKey() {
  const auto receive = Aead(receiveKey_);
  const auto header = HeaderCipher(receiveKey_);
  return ngtcp2_conn_install_rx_key(conn_, kZeroes.data(), kNonceSize, &receive, kZeroes.data(),
                                    kNonceSize, &header) == 0;
}

// `content`, then the transport parameters with their length, when wanted. ngtcp2 refers to it
// until the peer has acknowledged it.
bool PtcpHandshake::SendMessage(ngtcp2::Level level, Bytes content, bool withParams) {
  auto& message = ours_[level == ngtcp2::kInitialLevel ? 0 : 1];
  message.clear();
  if (!server_ && level == ngtcp2::kInitialLevel) message = Join(kMagic);
  message.insert(message.end(), content.begin(), content.end());
  if (withParams) {
    std::array<std::uint8_t, kMaxMessage / 2> params;
    const ngtcp2_ssize length =
        ngtcp2_conn_encode_local_transport_params(conn_, params.data(), params.size());
    if (length < 0) return false;
    message.push_back(static_cast<std::uint8_t>(length >> 8));
    message.push_back(static_cast<std::uint8_t>(length & 255));
    message.insert(message.end(), params.begin(), params.begin() + length);
  }
  return ngtcp2_conn_submit_crypto_data(conn_, level, message.data(), message.size()) == 0;
}

// Bytes of the handshake, in order. Each of the peer's messages is awaited once; more is an error.
bool PtcpHandshake::OnMessage(ngtcp2::Level level, Bytes data) {
  if (level != awaited_) return false;
  const bool initial = level == ngtcp2::kInitialLevel;
  auto& message = theirs_[initial ? 0 : 1];
  if (message.size() + data.size() > kMaxMessage) return false;
  message.insert(message.end(), data.begin(), data.end());
  return initial ? OnInitialHello() : OnHandshakeHello();
}

bool PtcpHandshake::OnInitialHello() {
  const auto& message = theirs_[0];
  if (!server_) {
    if (message.size() < serverRandom_.size()) return true;
    if (message.size() > serverRandom_.size()) return false;
    awaited_ = ngtcp2::kHandshakeLevel;
    std::copy(message.begin(), message.end(), serverRandom_.begin());
    return InstallHandshakeKeys();
  }
  const std::size_t begin = kMagic.size() + clientRandom_.size();
  const std::size_t seen = std::min(message.size(), kMagic.size());
  if (!std::equal(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(seen),
                  kMagic.begin()))
    return false;
  Bytes params;
  const Parsed parsed = FindParams(message, begin, params);
  if (parsed != Parsed::whole) return parsed == Parsed::more;
  awaited_ = ngtcp2::kHandshakeLevel;
  std::copy_n(message.begin() + kMagic.size(), clientRandom_.size(), clientRandom_.begin());
  return ngtcp2::DecodeParams(conn_, params) == 0 &&
         SendMessage(ngtcp2::kInitialLevel, serverRandom_, false) && InstallHandshakeKeys() &&
         SendMessage(ngtcp2::kHandshakeLevel, {}, true) && InstallSendKey();
}

bool PtcpHandshake::OnHandshakeHello() {
  const auto& message = theirs_[1];
  if (server_) {
    if (message.size() != kFinish.size() || message[0] != kFinish[0]) return false;
    awaited_.reset();
    if (!InstallReceiveKey()) return false;
  } else {
    Bytes params;
    const Parsed parsed = FindParams(message, 0, params);
    if (parsed != Parsed::whole) return parsed == Parsed::more;
    awaited_.reset();
    if (ngtcp2::DecodeParams(conn_, params) != 0 ||
        !SendMessage(ngtcp2::kHandshakeLevel, kFinish, false) || !InstallReceiveKey() ||
        !InstallSendKey())
      return false;
  }
  ngtcp2::HandshakeCompleted(conn_);
  return true;
}

}  // namespace ptcp
