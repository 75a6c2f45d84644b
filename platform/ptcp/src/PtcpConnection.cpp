// PtcpConnection.cpp - see PtcpConnection.h. The only file that calls ngtcp2.
//
// ngtcp2 is a QUIC transport without a TLS library. In place of TLS the two sides exchange, in the
// CRYPTO stream: client hello (magic, 128 random bits, transport parameters), server hello (128
// random bits), server parameters, client finish (one byte). Packets bear a keyed tag instead of
// encryption (PacketKey.h): the first ones keyed by the id that the client made up for the server,
// the others by both sides' random bits. The one stream begins with a byte of the client's that
// opens it, so that the server can speak first.
//
// ngtcp2 asserts that its interface is used in order. Therefore each step of the handshake is taken
// once, nothing is asked of it after an error, and datagrams come from one address only.
#include "PtcpConnection.h"

#include <ngtcp2/ngtcp2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#if NGTCP2_VERSION_NUM < 0x000c00
#error "ngtcp2 0.12 or newer is needed"
#endif

namespace ptcp {

namespace {

#if NGTCP2_VERSION_NUM >= 0x010000
using Level = ngtcp2_encryption_level;
using CloseError = ngtcp2_ccerr;
constexpr Level kInitialLevel = NGTCP2_ENCRYPTION_LEVEL_INITIAL;
constexpr Level kHandshakeLevel = NGTCP2_ENCRYPTION_LEVEL_HANDSHAKE;
constexpr auto kCongestionControl = NGTCP2_CC_ALGO_BBR;  // version 2 since 1.0
constexpr auto kTransportClose = NGTCP2_CCERR_TYPE_TRANSPORT;
constexpr auto kApplicationClose = NGTCP2_CCERR_TYPE_APPLICATION;

void SetApplicationError(CloseError& error, std::uint64_t code) {
  ngtcp2_ccerr_default(&error);
  ngtcp2_ccerr_set_application_error(&error, code, nullptr, 0);
}
void SetLibraryError(CloseError& error, int code) {
  ngtcp2_ccerr_default(&error);
  ngtcp2_ccerr_set_liberr(&error, code, nullptr, 0);
}
CloseError ReceivedError(ngtcp2_conn* conn) { return *ngtcp2_conn_get_ccerr(conn); }
int DecodeParams(ngtcp2_conn* conn, Bytes encoded) {
  return ngtcp2_conn_decode_and_set_remote_transport_params(conn, encoded.data(), encoded.size());
}
void HandshakeCompleted(ngtcp2_conn* conn) { ngtcp2_conn_tls_handshake_completed(conn); }
void SetOriginalId(ngtcp2_transport_params& params, const ngtcp2_cid& id) {
  params.original_dcid = id;
  params.original_dcid_present = 1;
}
Bytes TokenOf(const ngtcp2_pkt_hd& header) { return {header.token, header.tokenlen}; }
void SetToken(ngtcp2_settings& settings, Bytes token) {
  settings.token = token.data();
  settings.tokenlen = token.size();
}
#else
using Level = ngtcp2_crypto_level;
using CloseError = ngtcp2_connection_close_error;
constexpr Level kInitialLevel = NGTCP2_CRYPTO_LEVEL_INITIAL;
constexpr Level kHandshakeLevel = NGTCP2_CRYPTO_LEVEL_HANDSHAKE;
constexpr auto kCongestionControl = NGTCP2_CC_ALGO_BBR2;
constexpr auto kTransportClose = NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_TRANSPORT;
constexpr auto kApplicationClose = NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION;

void SetApplicationError(CloseError& error, std::uint64_t code) {
  ngtcp2_connection_close_error_default(&error);
  ngtcp2_connection_close_error_set_application_error(&error, code, nullptr, 0);
}
void SetLibraryError(CloseError& error, int code) {
  ngtcp2_connection_close_error_default(&error);
  ngtcp2_connection_close_error_set_transport_error_liberr(&error, code, nullptr, 0);
}
CloseError ReceivedError(ngtcp2_conn* conn) {
  CloseError error;
  ngtcp2_conn_get_connection_close_error(conn, &error);
  return error;
}
int DecodeParams(ngtcp2_conn* conn, Bytes encoded) {
  return ngtcp2_conn_decode_remote_transport_params(conn, encoded.data(), encoded.size());
}
void HandshakeCompleted(ngtcp2_conn* conn) { ngtcp2_conn_handshake_completed(conn); }
void SetOriginalId(ngtcp2_transport_params& params, const ngtcp2_cid& id) {
  params.original_dcid = id;
}
Bytes TokenOf(const ngtcp2_pkt_hd& header) { return {header.token.base, header.token.len}; }
void SetToken(ngtcp2_settings& settings, Bytes token) {
  settings.token = {const_cast<std::uint8_t*>(token.data()), token.size()};
}
#endif

constexpr std::size_t kWindow = std::size_t{8} << 20;
constexpr ngtcp2_duration kIdleLimit = 10 * NGTCP2_SECONDS;
constexpr ngtcp2_duration kKeepAlive = 3 * NGTCP2_SECONDS;
constexpr ngtcp2_duration kHandshakeLimit = 10 * NGTCP2_SECONDS;

constexpr std::array<std::uint8_t, 4> kMagic = {'z', 'p', 't', 1};
constexpr char kPreface = 1;
constexpr std::array<std::uint8_t, 1> kFinish = {1};

// What a close says; the peer's reason follows from it.
constexpr std::uint64_t kClosedInOrder = 0;
constexpr std::uint64_t kGivenUp = 1;

constexpr std::size_t kTagSize = sizeof(Tag);
constexpr std::size_t kNonceSize = 12;
constexpr std::array<std::uint8_t, kNonceSize> kZeroes{};  // then a nonce is the packet number

int ReasonOf(int error) {
  switch (error) {
    case NGTCP2_ERR_IDLE_CLOSE:
    case NGTCP2_ERR_HANDSHAKE_TIMEOUT:
      return ETIMEDOUT;
    case NGTCP2_ERR_NOMEM:
      return ENOMEM;
    default:
      return EPROTO;
  }
}

ngtcp2_cid ToCid(const ConnectionId& id) {
  ngtcp2_cid cid;
  ngtcp2_cid_init(&cid, id.bytes.data(), id.size);
  return cid;
}

ConnectionId FromCid(const ngtcp2_cid& cid) { return ConnectionId({cid.data, cid.datalen}); }

// ngtcp2 wants addresses. We filter by address before it sees a datagram, so any will do.
const ngtcp2_path& AnyPath() {
  static sockaddr_in address = [] {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    return any;
  }();
  static const ngtcp2_path path = [] {
    const ngtcp2_addr any{reinterpret_cast<ngtcp2_sockaddr*>(&address), sizeof address};
    return ngtcp2_path{any, any, nullptr};
  }();
  return path;
}

ngtcp2_crypto_aead_ctx Aead(const PacketKey& key) { return {const_cast<PacketKey*>(&key)}; }
ngtcp2_crypto_cipher_ctx HeaderCipher(const PacketKey& key) {
  return {const_cast<PacketKey*>(&key)};
}

const PacketKey& RetryKey() {
  static const PacketKey key;
  return key;
}

ngtcp2_crypto_aead TagOnly() {
  ngtcp2_crypto_aead aead{};
  aead.max_overhead = kTagSize;
  return aead;
}

ngtcp2_crypto_ctx Context() {
  ngtcp2_crypto_ctx context{};
  context.aead = TagOnly();
  context.max_encryption = UINT64_MAX;
  context.max_decryption_failure = UINT64_MAX;
  return context;
}

Tag SignPacket(const ngtcp2_crypto_aead_ctx* context, Bytes header, Bytes nonce, Bytes payload) {
  return static_cast<const PacketKey*>(context->native_handle)->Sign({header, nonce, payload});
}

int Seal(std::uint8_t* dest, const ngtcp2_crypto_aead*, const ngtcp2_crypto_aead_ctx* context,
         const std::uint8_t* plain, std::size_t length, const std::uint8_t* nonce,
         std::size_t nonceLength, const std::uint8_t* header, std::size_t headerLength) {
  const Tag tag =
      SignPacket(context, {header, headerLength}, {nonce, nonceLength}, {plain, length});
  if (length != 0 && dest != plain) std::memmove(dest, plain, length);
  std::memcpy(dest + length, tag.data(), tag.size());
  return 0;
}

// The nonce is the whole packet number, of which only the end is on the wire: a late duplicate is
// decoded as a packet of the future, and the tag is what gives it away.
int Unseal(std::uint8_t* dest, const ngtcp2_crypto_aead*, const ngtcp2_crypto_aead_ctx* context,
           const std::uint8_t* sealed, std::size_t length, const std::uint8_t* nonce,
           std::size_t nonceLength, const std::uint8_t* header, std::size_t headerLength) {
  if (length < kTagSize) return NGTCP2_ERR_DECRYPT;
  length -= kTagSize;
  const Tag tag =
      SignPacket(context, {header, headerLength}, {nonce, nonceLength}, {sealed, length});
  if (std::memcmp(tag.data(), sealed + length, tag.size()) != 0) return NGTCP2_ERR_DECRYPT;
  if (length != 0 && dest != sealed) std::memmove(dest, sealed, length);
  return 0;
}

int NoHeaderMask(std::uint8_t* dest, const ngtcp2_crypto_cipher*, const ngtcp2_crypto_cipher_ctx*,
                 const std::uint8_t*) {
  std::memset(dest, 0, NGTCP2_HP_MASKLEN);
  return 0;
}

int Verdict(bool fine) { return fine ? 0 : NGTCP2_ERR_CALLBACK_FAILURE; }

template <class... Parts>
std::vector<std::uint8_t> Join(const Parts&... parts) {
  std::vector<std::uint8_t> all;
  (all.insert(all.end(), std::begin(parts), std::end(parts)), ...);
  return all;
}

}  // namespace

// What ngtcp2 calls. Memory may run out inside, and nothing may be thrown through a C library.
struct PtcpConnection::Callbacks {
  static PtcpConnection& Self(void* user) { return *static_cast<PtcpConnection*>(user); }
  template <class Function>
  static int Guarded(Function&& function) {
    try {
      return Verdict(function());
    } catch (const std::bad_alloc&) {
      return NGTCP2_ERR_CALLBACK_FAILURE;
    }
  }

  static int ClientInitial(ngtcp2_conn* conn, void* user) {
    return Guarded([&] {
      PtcpConnection& self = Self(user);
      self.conn_ = conn;
      return self.InstallInitialKeys(FromCid(*ngtcp2_conn_get_dcid(conn))) &&
             self.SendHello(kInitialLevel, self.clientRandom_, true);
    });
  }
  static int ClientInitialSeen(ngtcp2_conn*, const ngtcp2_cid* id, void* user) {
    return Verdict(Self(user).InstallInitialKeys(FromCid(*id)));
  }
  static int Retried(ngtcp2_conn*, const ngtcp2_pkt_hd* header, void* user) {
    return Verdict(Self(user).InstallInitialKeys(FromCid(header->scid)));
  }
  static int CryptoData(ngtcp2_conn*, Level level, std::uint64_t, const std::uint8_t* data,
                        std::size_t length, void* user) {
    return Guarded([&] { return Self(user).OnHello(level, {data, length}); });
  }
  static int HandshakeDone(ngtcp2_conn* conn, void* user) {
    Self(user).established_ = true;
    ngtcp2_conn_set_keep_alive_timeout(conn, kKeepAlive);
    return 0;
  }
  static int StreamData(ngtcp2_conn*, std::uint32_t flags, std::int64_t stream, std::uint64_t,
                        const std::uint8_t* data, std::size_t length, void* user, void*) {
    return Guarded([&] {
      const bool last = (flags & NGTCP2_STREAM_DATA_FLAG_FIN) != 0;
      return Self(user).OnStreamData(stream, {data, length}, last);
    });
  }
  static int Acknowledged(ngtcp2_conn*, std::int64_t, std::uint64_t offset, std::uint64_t length,
                          void* user, void*) {
    PtcpConnection& self = Self(user);
    self.out_.DropUntil(offset + length);
    // Only the end of the stream comes without bytes. An end that was sent again together with
    // bytes is not told apart from them, and then the peer's close tells.
    if (length == 0) self.finishAcknowledged_ = true;
    return 0;
  }
  static int WindowOpened(ngtcp2_conn*, std::int64_t, std::uint64_t, void* user, void*) {
    Self(user).blocked_ = false;
    return 0;
  }
  static int StreamReset(ngtcp2_conn*, std::int64_t, std::uint64_t, std::uint64_t, void*, void*) {
    return NGTCP2_ERR_CALLBACK_FAILURE;  // we never do that
  }
  static int StopSending(ngtcp2_conn*, std::int64_t, std::uint64_t, void*, void*) {
    return NGTCP2_ERR_CALLBACK_FAILURE;
  }
  static void Random(std::uint8_t* out, std::size_t length, const ngtcp2_rand_ctx* context) {
    static_cast<PtcpHost*>(context->native_handle)->FillRandom(out, length);
  }
  static int NewId(ngtcp2_conn*, ngtcp2_cid* cid, std::uint8_t* token, std::size_t length,
                   void* user) {
    return Guarded([&] {
      PtcpConnection& self = Self(user);
      ConnectionId id;
      if (length != kLocalIdSize || !self.AddLocalId(id)) return false;
      *cid = ToCid(id);
      const Tag reset = self.host_.ResetToken(id);
      std::memcpy(token, reset.data(), reset.size());
      return true;
    });
  }
  static int IdGone(ngtcp2_conn*, const ngtcp2_cid* cid, void* user) {
    Self(user).host_.RemoveId(FromCid(*cid));
    return 0;
  }
  // The keys stay; the phase is part of the header, so the tag knows it.
  static int NextKeys(ngtcp2_conn*, std::uint8_t* receiveSecret, std::uint8_t* sendSecret,
                      ngtcp2_crypto_aead_ctx* receive, std::uint8_t* receiveIv,
                      ngtcp2_crypto_aead_ctx* send, std::uint8_t* sendIv, const std::uint8_t*,
                      const std::uint8_t*, std::size_t length, void* user) {
    std::memset(receiveSecret, 0, length);
    std::memset(sendSecret, 0, length);
    std::memset(receiveIv, 0, kNonceSize);
    std::memset(sendIv, 0, kNonceSize);
    *receive = Aead(Self(user).receiveKey_);
    *send = Aead(Self(user).sendKey_);
    return 0;
  }
  static void DeleteAead(ngtcp2_conn*, ngtcp2_crypto_aead_ctx*, void*) {}
  static void DeleteCipher(ngtcp2_conn*, ngtcp2_crypto_cipher_ctx*, void*) {}
  static int PathChallenge(ngtcp2_conn*, std::uint8_t* data, void* user) {
    Self(user).host_.FillRandom(data, NGTCP2_PATH_CHALLENGE_DATALEN);
    return 0;
  }
  static int OtherVersion(ngtcp2_conn*, std::uint32_t, const ngtcp2_cid*, void*) {
    return NGTCP2_ERR_CALLBACK_FAILURE;  // there is one
  }

  static const ngtcp2_callbacks& Table() {
    static const ngtcp2_callbacks table = [] {
      ngtcp2_callbacks all{};
      all.client_initial = &ClientInitial;
      all.recv_client_initial = &ClientInitialSeen;
      all.recv_retry = &Retried;
      all.recv_crypto_data = &CryptoData;
      all.handshake_completed = &HandshakeDone;
      all.encrypt = &Seal;
      all.decrypt = &Unseal;
      all.hp_mask = &NoHeaderMask;
      all.recv_stream_data = &StreamData;
      all.acked_stream_data_offset = &Acknowledged;
      all.extend_max_stream_data = &WindowOpened;
      all.stream_reset = &StreamReset;
      all.stream_stop_sending = &StopSending;
      all.rand = &Random;
      all.get_new_connection_id = &NewId;
      all.remove_connection_id = &IdGone;
      all.update_key = &NextKeys;
      all.delete_crypto_aead_ctx = &DeleteAead;
      all.delete_crypto_cipher_ctx = &DeleteCipher;
      all.get_path_challenge_data = &PathChallenge;
      all.version_negotiation = &OtherVersion;
      return all;
    }();
    return table;
  }
};

// --- making ---

PtcpConnection::~PtcpConnection() {
  if (conn_ != nullptr) ngtcp2_conn_del(conn_);
}

void PtcpConnection::Configure(ngtcp2_settings& settings, ngtcp2_transport_params& params,
                               Time now) {
  ngtcp2_settings_default(&settings);
  settings.initial_ts = now;
  settings.cc_algo = kCongestionControl;
  settings.max_tx_udp_payload_size = kLargestDatagram;
  settings.handshake_timeout = kHandshakeLimit;
  settings.rand_ctx.native_handle = &host_;
  ngtcp2_transport_params_default(&params);
  params.initial_max_stream_data_bidi_local = kWindow;
  params.initial_max_stream_data_bidi_remote = kWindow;
  params.initial_max_data = kWindow;
  params.initial_max_streams_bidi = server_ ? 1 : 0;
  params.max_idle_timeout = kIdleLimit;
  params.disable_active_migration = 1;
  params.active_connection_id_limit = 2;
}

// Random, so that one that is taken is a rare accident.
bool PtcpConnection::AddLocalId(ConnectionId& id) {
  std::array<std::uint8_t, kLocalIdSize> bytes;
  for (int tries = 0; tries < 8; ++tries) {
    host_.FillRandom(bytes.data(), bytes.size());
    id = ConnectionId(bytes);
    if (host_.AddId(id)) return true;
  }
  return false;
}

bool PtcpConnection::Connect(Time now) {
  if (!MakeClient(now)) Fail(ENOMEM);
  return !dead_;
}

bool PtcpConnection::Accept(const InitialHeader& initial, const ConnectionId& original, Time now) {
  server_ = true;
  if (!MakeServer(initial, original, now)) Fail(ENOMEM);
  return !dead_;
}

bool PtcpConnection::MakeClient(Time now) {
  ngtcp2_settings settings;
  ngtcp2_transport_params params;
  Configure(settings, params, now);
  host_.FillRandom(clientRandom_.data(), clientRandom_.size());
  Random madeUp;
  host_.FillRandom(madeUp.data(), madeUp.size());
  ConnectionId ours;
  if (!AddLocalId(ours)) return false;
  const ngtcp2_cid destination = ToCid(ConnectionId(madeUp));
  const ngtcp2_cid source = ToCid(ours);
  if (ngtcp2_conn_client_new(&conn_, &destination, &source, &AnyPath(), NGTCP2_PROTO_VER_V1,
                             &Callbacks::Table(), &settings, &params, nullptr, this) != 0)
    return false;
  const ngtcp2_crypto_aead tagOnly = TagOnly();
  const ngtcp2_crypto_aead_ctx retry = Aead(RetryKey());
  ngtcp2_conn_set_retry_aead(conn_, &tagOnly, &retry);
  out_.Append(&kPreface, 1);
  return true;
}

bool PtcpConnection::MakeServer(const InitialHeader& initial, const ConnectionId& original,
                                Time now) {
  ngtcp2_settings settings;
  ngtcp2_transport_params params;
  Configure(settings, params, now);
  SetOriginalId(params, ToCid(original));
  if (!initial.token.empty()) {
    SetToken(settings, initial.token);
    params.retry_scid = ToCid(initial.destination);
    params.retry_scid_present = 1;
  }
  host_.FillRandom(serverRandom_.data(), serverRandom_.size());
  ConnectionId ours;
  if (!AddLocalId(ours)) return false;
  const Tag reset = host_.ResetToken(ours);
  std::copy(reset.begin(), reset.end(), params.stateless_reset_token);
  params.stateless_reset_token_present = 1;
  const ngtcp2_cid destination = ToCid(initial.source);
  const ngtcp2_cid source = ToCid(ours);
  return ngtcp2_conn_server_new(&conn_, &destination, &source, &AnyPath(), NGTCP2_PROTO_VER_V1,
                                &Callbacks::Table(), &settings, &params, nullptr, this) == 0;
}

// --- handshake ---

// The last byte says which way, so that no packet can be sent back to its sender.
bool PtcpConnection::InstallInitialKeys(const ConnectionId& id) {
  const std::array<std::uint8_t, 1> fromClient = {0};
  const std::array<std::uint8_t, 1> fromServer = {1};
  initialSendKey_ = PacketKey(Join(id.View(), server_ ? fromServer : fromClient));
  initialReceiveKey_ = PacketKey(Join(id.View(), server_ ? fromClient : fromServer));
  const ngtcp2_crypto_ctx context = Context();
  ngtcp2_conn_set_initial_crypto_ctx(conn_, &context);
  const auto receive = Aead(initialReceiveKey_);
  const auto send = Aead(initialSendKey_);
  const auto receiveHeader = HeaderCipher(initialReceiveKey_);
  const auto sendHeader = HeaderCipher(initialSendKey_);
  return ngtcp2_conn_install_initial_key(conn_, &receive, kZeroes.data(), &receiveHeader, &send,
                                         kZeroes.data(), &sendHeader, kNonceSize) == 0;
}

bool PtcpConnection::InstallHandshakeKeys() {
  const std::array<std::uint8_t, 1> fromClient = {2};
  const std::array<std::uint8_t, 1> fromServer = {3};
  const auto bits = Join(clientRandom_, serverRandom_);
  sendKey_ = PacketKey(Join(bits, server_ ? fromServer : fromClient));
  receiveKey_ = PacketKey(Join(bits, server_ ? fromClient : fromServer));
  const ngtcp2_crypto_ctx context = Context();
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

bool PtcpConnection::InstallSendKey() {
  const auto send = Aead(sendKey_);
  const auto header = HeaderCipher(sendKey_);
  return ngtcp2_conn_install_tx_key(conn_, kZeroes.data(), kNonceSize, &send, kZeroes.data(),
                                    kNonceSize, &header) == 0;
}

bool PtcpConnection::InstallReceiveKey() {
  const auto receive = Aead(receiveKey_);
  const auto header = HeaderCipher(receiveKey_);
  return ngtcp2_conn_install_rx_key(conn_, kZeroes.data(), kNonceSize, &receive, kZeroes.data(),
                                    kNonceSize, &header) == 0;
}

// `content`, then the transport parameters with their length, when wanted. ngtcp2 refers to it
// until the peer has acknowledged it.
bool PtcpConnection::SendHello(std::uint32_t level, Bytes content, bool withParams) {
  const auto place = static_cast<Level>(level);
  auto& message = ourHello_[place == kInitialLevel ? 0 : 1];
  message.clear();
  if (!server_ && place == kInitialLevel) message = Join(kMagic);
  message.insert(message.end(), content.begin(), content.end());
  if (withParams) {
    std::array<std::uint8_t, kLargestHello / 2> params;
    const ngtcp2_ssize length =
        ngtcp2_conn_encode_local_transport_params(conn_, params.data(), params.size());
    if (length < 0) return false;
    message.push_back(static_cast<std::uint8_t>(length >> 8));
    message.push_back(static_cast<std::uint8_t>(length & 255));
    message.insert(message.end(), params.begin(), params.begin() + length);
  }
  return ngtcp2_conn_submit_crypto_data(conn_, place, message.data(), message.size()) == 0;
}

bool PtcpConnection::ReadParams(Bytes encoded) { return DecodeParams(conn_, encoded) == 0; }

// Bytes of the handshake, in order. Each of the peer's messages is awaited once; more is an error.
bool PtcpConnection::OnHello(std::uint32_t level, Bytes data) {
  const bool initial = static_cast<Level>(level) == kInitialLevel;
  if (!initial && static_cast<Level>(level) != kHandshakeLevel) return false;
  if (step_ != (initial ? 0 : 1)) return false;
  auto& message = hello_[initial ? 0 : 1];
  if (message.size() + data.size() > kLargestHello) return false;
  message.insert(message.end(), data.begin(), data.end());
  return initial ? OnInitialHello() : OnHandshakeHello();
}

namespace {

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

bool PtcpConnection::OnInitialHello() {
  const auto& message = hello_[0];
  if (!server_) {
    if (message.size() < serverRandom_.size()) return true;
    if (message.size() > serverRandom_.size()) return false;
    step_ = 1;
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
  step_ = 1;
  std::copy_n(message.begin() + kMagic.size(), clientRandom_.size(), clientRandom_.begin());
  return ReadParams(params) && SendHello(kInitialLevel, serverRandom_, false) &&
         InstallHandshakeKeys() && SendHello(kHandshakeLevel, {}, true) && InstallSendKey();
}

bool PtcpConnection::OnHandshakeHello() {
  const auto& message = hello_[1];
  if (server_) {
    if (message.size() != kFinish.size() || message[0] != kFinish[0]) return false;
    step_ = 2;
    if (!InstallReceiveKey()) return false;
  } else {
    Bytes params;
    const Parsed parsed = FindParams(message, 0, params);
    if (parsed != Parsed::whole) return parsed == Parsed::more;
    step_ = 2;
    if (!ReadParams(params) || !SendHello(kHandshakeLevel, kFinish, false) ||
        !InstallReceiveKey() || !InstallSendKey())
      return false;
  }
  HandshakeCompleted(conn_);
  return true;
}

// --- receiving ---

bool PtcpConnection::OnStreamData(std::int64_t stream, Bytes data, bool last) {
  stream_ = stream;
  if (server_ && !prefaceRead_ && !data.empty()) {
    if (data.front() != static_cast<std::uint8_t>(kPreface)) return false;
    prefaceRead_ = true;
    data = data.subspan(1);
    ngtcp2_conn_extend_max_stream_offset(conn_, stream_, 1);
    ngtcp2_conn_extend_max_offset(conn_, 1);
  }
  in_.Append(reinterpret_cast<const char*>(data.data()), data.size());
  if (last) peerFinished_ = true;
  return true;
}

std::size_t PtcpConnection::Read(char* out, std::size_t length) {
  const std::size_t count = in_.Read(out, length);
  if (count != 0 && !dead_) {
    ngtcp2_conn_extend_max_stream_offset(conn_, stream_, count);
    ngtcp2_conn_extend_max_offset(conn_, count);
  }
  return count;
}

void PtcpConnection::Receive(Bytes datagram, Time now) {
  if (dead_ || datagram.empty()) return;
  datagramBytesIn_ += datagram.size();
  const ngtcp2_pkt_info info{};
  const int error =
      ngtcp2_conn_read_pkt(conn_, &AnyPath(), &info, datagram.data(), datagram.size(), now);
  if (error != 0) return Ended(error, now);
  OpenStream();
}

void PtcpConnection::OnTimer(Time now) {
  if (dead_ || Due() > now) return;
  if (const int error = ngtcp2_conn_handle_expiry(conn_, now); error != 0) Ended(error, now);
}

Time PtcpConnection::Due() const { return dead_ ? kNever : ngtcp2_conn_get_expiry(conn_); }

void PtcpConnection::OpenStream() {
  if (server_ || !established_ || stream_ >= 0) return;
  if (ngtcp2_conn_open_bidi_stream(conn_, &stream_, nullptr) != 0) {
    stream_ = -1;
    Fail(EPROTO);
  }
}

// --- sending ---

void PtcpConnection::Flush(Time now) {
  if (dead_) return;
  blocked_ = false;  // a window that opens for the whole connection is not told
  const std::size_t quantum = ngtcp2_conn_get_send_quantum(conn_);
  std::size_t total = 0;
  while (WriteOne(now, total) && total < quantum) {
  }
  if (!dead_) ngtcp2_conn_update_pkt_tx_time(conn_, now);
}

// False when there is nothing more to send for now.
bool PtcpConnection::WriteOne(Time now, std::size_t& total) {
  std::array<std::uint8_t, kLargestDatagram> packet;
  std::array<ngtcp2_vec, 2> pieces;
  std::size_t count = 0;
  std::int64_t stream = -1;
  std::uint32_t flags = NGTCP2_WRITE_STREAM_FLAG_NONE;
  const bool mayWrite = stream_ >= 0 && established_ && !blocked_ && !finishSent_;
  if (mayWrite && (Unsent() != 0 || finishing_)) {
    stream = stream_;
    for (std::uint64_t at = sent_; at != out_.End() && count < pieces.size(); ++count) {
      const std::span<char> piece = out_.View(at);
      pieces[count] = {reinterpret_cast<std::uint8_t*>(piece.data()), piece.size()};
      at += piece.size();
    }
    if (Unsent() == 0) flags = NGTCP2_WRITE_STREAM_FLAG_FIN;
  }
  ngtcp2_ssize taken = -1;
  const ngtcp2_ssize length =
      ngtcp2_conn_writev_stream(conn_, nullptr, nullptr, packet.data(), packet.size(), &taken,
                                flags, stream, pieces.data(), count, now);
  if (length == NGTCP2_ERR_STREAM_DATA_BLOCKED) return blocked_ = true;
  if (length < 0) {
    Ended(static_cast<int>(length), now);
    return false;
  }
  if (taken >= 0) {
    sent_ += static_cast<std::uint64_t>(taken);
    if ((flags & NGTCP2_WRITE_STREAM_FLAG_FIN) != 0) finishSent_ = true;
  }
  if (length == 0) return false;
  total += static_cast<std::size_t>(length);
  CountAndSend(Bytes(packet).first(static_cast<std::size_t>(length)));
  return true;
}

void PtcpConnection::CountAndSend(Bytes datagram) {
  datagramBytesOut_ += datagram.size();
  host_.SendDatagram(datagram);
}

// --- ending ---

// ngtcp2 has told that it is over, or that the peer is at fault, who is told then.
void PtcpConnection::Ended(int error, Time now) {
  if (error == NGTCP2_ERR_DRAINING) {
    const CloseError told = ReceivedError(conn_);
    const bool inOrder = told.type == kApplicationClose && told.error_code == kClosedInOrder;
    const bool refused =
        told.type == kTransportClose && told.error_code == NGTCP2_CONNECTION_REFUSED;
    return Fail(inOrder ? 0 : refused ? ECONNREFUSED : ECONNRESET);
  }
  const bool silent = error == NGTCP2_ERR_DROP_CONN || error == NGTCP2_ERR_RETRY ||
                      error == NGTCP2_ERR_IDLE_CLOSE || error == NGTCP2_ERR_CLOSING;
  if (!silent) {
    CloseError told;
    SetLibraryError(told, error);
    SendClose(&told, now);
  }
  Fail(ReasonOf(error));
}

void PtcpConnection::Close(bool inOrder, Time now) {
  if (dead_) return;
  CloseError told;
  SetApplicationError(told, inOrder ? kClosedInOrder : kGivenUp);
  SendClose(&told, now);
  Fail(inOrder ? 0 : ECONNABORTED);
}

void PtcpConnection::SendClose(const void* error, Time now) {
  std::array<std::uint8_t, kLargestDatagram> packet;
  std::size_t room = packet.size();
  if (server_ && !established_)  // the address is not proved
    room = static_cast<std::size_t>(
        std::min<std::uint64_t>(room, UnprovedRoom()));
  const ngtcp2_ssize length = ngtcp2_conn_write_connection_close(
      conn_, nullptr, nullptr, packet.data(), room, static_cast<const CloseError*>(error), now);
  if (length > 0) CountAndSend(Bytes(packet).first(static_cast<std::size_t>(length)));
}

void PtcpConnection::Fail(int reason) {
  if (std::exchange(dead_, true)) return;
  reason_ = reason;
}

// --- packets without a connection ---

std::optional<ConnectionId> PtcpConnection::Destination(Bytes datagram) {
  if (datagram.empty()) return std::nullopt;
  ngtcp2_version_cid header;
  if (ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(), kLocalIdSize) != 0 ||
      header.dcidlen > ConnectionId::kMaxSize)
    return std::nullopt;
  return ConnectionId({header.dcid, header.dcidlen});
}

std::optional<InitialHeader> PtcpConnection::ReadInitial(Bytes datagram) {
  ngtcp2_pkt_hd header;
  if (ngtcp2_accept(&header, datagram.data(), datagram.size()) != 0 ||
      header.version != NGTCP2_PROTO_VER_V1 || header.dcid.datalen < NGTCP2_MIN_INITIAL_DCIDLEN)
    return std::nullopt;
  return InitialHeader{FromCid(header.dcid), FromCid(header.scid), TokenOf(header)};
}

std::vector<std::uint8_t> PtcpConnection::MakeRetry(const InitialHeader& initial,
                                                    const ConnectionId& source, Bytes token) {
  std::vector<std::uint8_t> packet(512);
  const ngtcp2_cid destination = ToCid(initial.source);
  const ngtcp2_cid ours = ToCid(source);
  const ngtcp2_cid original = ToCid(initial.destination);
  const ngtcp2_crypto_aead tagOnly = TagOnly();
  const ngtcp2_crypto_aead_ctx key = Aead(RetryKey());
  const ngtcp2_ssize length = ngtcp2_pkt_write_retry(
      packet.data(), packet.size(), NGTCP2_PROTO_VER_V1, &destination, &ours, &original,
      token.data(), token.size(), &Seal, &tagOnly, &key);
  packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return packet;
}

std::vector<std::uint8_t> PtcpConnection::MakeReset(
    Bytes datagram, const Tag& token,
    const std::function<void(std::uint8_t*, std::size_t)>& fillRandom) {
  if (datagram.empty()) return {};
  constexpr std::size_t kLargestReset = 43;  // as a packet of ours could be
  std::vector<std::uint8_t> packet(std::min(datagram.size() - 1, kLargestReset));
  constexpr std::size_t kLeastRandom = 5;
  if (packet.size() < kLeastRandom + token.size()) return {};
  std::vector<std::uint8_t> random(packet.size() - token.size());
  fillRandom(random.data(), random.size());
  const ngtcp2_ssize length =
      ngtcp2_pkt_write_stateless_reset(packet.data(), packet.size(), token.data(), random.data(),
                                       random.size());
  packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return packet;
}

}  // namespace ptcp
