// PtcpConnection.cpp - see PtcpConnection.h.
//
// ngtcp2 is a QUIC transport without a TLS library: PtcpHandshake stands in for that, and a keyed
// tag (PacketKey.h) for encryption. The one stream begins with a byte of the client's that opens
// it, so that the server can speak first.
//
// ngtcp2 asserts that its interface is used in order. Therefore each step of the handshake is taken
// once, nothing is asked of it after an error that it calls fatal, and all datagrams are handed to
// it as if they came by one path.
#include "PtcpConnection.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "PacketSeal.h"

namespace ptcp {

using ngtcp2::CloseError;
using ngtcp2::ToCid;

namespace {

constexpr std::size_t kWindow = std::size_t{8} << 20;
// What is sent may lie behind a byte that is not acknowledged. A peer of ours grants one window
// from what it has read on, and its acknowledgements may be behind that by no more than another.
constexpr std::size_t kMaxUnacknowledged = 2 * kWindow;
constexpr ngtcp2_duration kIdleLimit = 10 * NGTCP2_SECONDS;
constexpr ngtcp2_duration kKeepAlive = 3 * NGTCP2_SECONDS;
constexpr ngtcp2_duration kKeepAliveWaiting = NGTCP2_SECONDS;
constexpr int kKeepAliveTimeouts = 2;  // probe timeouts
constexpr ngtcp2_duration kHandshakeLimit = 10 * NGTCP2_SECONDS;

// Makes the first probe timeout 0.3 s.
constexpr ngtcp2_duration kInitialRtt = 100 * NGTCP2_MILLISECONDS;

// So long, and so many probe timeouts, may pass without an acknowledgement of new bytes.
constexpr ngtcp2_duration kNoProgress = 2 * NGTCP2_SECONDS;
constexpr int kNoProgressTimeouts = 3;

constexpr Time kMinPause = NGTCP2_MILLISECONDS;  // between two looks that change nothing

constexpr char kPreface = 1;

// What a close says; the peer's reason follows from it.
constexpr std::uint64_t kClosedInOrder = 0;
constexpr std::uint64_t kGivenUp = 1;

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

}  // namespace

// --- making ---

PtcpConnection::~PtcpConnection() {
  if (conn_ != nullptr) ngtcp2_conn_del(conn_);
}

void PtcpConnection::Configure(ngtcp2_settings& settings, ngtcp2_transport_params& params,
                               Time now) {
  ngtcp2_settings_default(&settings);
  settings.initial_ts = now;
  settings.cc_algo = ngtcp2::kCongestionControl;
  settings.max_tx_udp_payload_size = loopback_ ? kMaxDatagramLoopback : kMaxDatagram;
  settings.no_tx_udp_payload_size_shaping = loopback_ ? 1 : 0;
  settings.no_pmtud = loopback_ ? 1 : 0;
  settings.initial_rtt = kInitialRtt;
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

RandomBits PtcpConnection::MakeRandomBits() {
  RandomBits bits;
  host_.FillRandom(bits.data(), bits.size());
  return bits;
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
  const RandomBits bits = MakeRandomBits();
  const RandomBits madeUp = MakeRandomBits();
  ConnectionId ours;
  if (!AddLocalId(ours)) return false;
  const ngtcp2_cid destination = ToCid(ConnectionId(madeUp));
  const ngtcp2_cid source = ToCid(ours);
  if (ngtcp2_conn_client_new(&conn_, &destination, &source, &AnyPath(), NGTCP2_PROTO_VER_V1,
                             &CallbackTable(), &settings, &params, nullptr, this) != 0)
    return false;
  handshake_.Begin(conn_, false, bits, gaps_);
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
  ngtcp2::SetOriginalId(params, ToCid(original));
  if (!initial.token.empty()) {
    ngtcp2::SetToken(settings, initial.token);
    params.retry_scid = ToCid(initial.destination);
    params.retry_scid_present = 1;
  }
  const RandomBits bits = MakeRandomBits();
  ConnectionId ours;
  if (!AddLocalId(ours)) return false;
  const Tag reset = host_.ResetToken(ours);
  std::copy(reset.begin(), reset.end(), params.stateless_reset_token);
  params.stateless_reset_token_present = 1;
  const ngtcp2_cid destination = ToCid(initial.source);
  const ngtcp2_cid source = ToCid(ours);
  if (ngtcp2_conn_server_new(&conn_, &destination, &source, &AnyPath(), NGTCP2_PROTO_VER_V1,
                             &CallbackTable(), &settings, &params, nullptr, this) != 0)
    return false;
  handshake_.Begin(conn_, true, bits, gaps_);
  return true;
}

// --- receiving ---

void PtcpConnection::OnStreamData(std::int64_t stream, Bytes data, bool last) {
  stream_ = stream;
  if (server_ && !prefaceRead_ && !data.empty()) {
    if (data.front() != static_cast<std::uint8_t>(kPreface)) violated_ = true;
    prefaceRead_ = true;
    data = data.subspan(1);
    ngtcp2_conn_extend_max_stream_offset(conn_, stream_, 1);
    ngtcp2_conn_extend_max_offset(conn_, 1);
  }
  if (violated_) return;
  in_.Append(reinterpret_cast<const char*>(data.data()), data.size());
  if (last) peerFinished_ = true;
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
  // ngtcp2 asserts that a client finishes its handshake before a frame of the connection changes
  // anything. Servers of ours have nothing to send by then.
  if (!server_ && !established_) datagram = LongPacketsOf(datagram);
  if (datagram.empty()) return;
  const ngtcp2_pkt_info info{};
  const int error =
      ngtcp2_conn_read_pkt(conn_, &AnyPath(), &info, datagram.data(), datagram.size(), now);
  if (error != 0 || violated_) return Ended(error != 0 ? error : NGTCP2_ERR_PROTO, now);
  OpenStream();
}

void PtcpConnection::OnTimer(Time now) {
  if (dead_ || Due() > now) return;
  if (const int error = ngtcp2_conn_handle_expiry(conn_, now); error != 0) Ended(error, now);
}

Time PtcpConnection::Due() const {
  if (dead_ || conn_ == nullptr) return kNever;
  return std::max<Time>(ngtcp2_conn_get_expiry(conn_), notBefore_);
}

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
  NoticeNarrowPath(now);
  blocked_ = false;  // a window that opens for the whole connection is not told
  const std::size_t quantum = ngtcp2_conn_get_send_quantum(conn_);
  const std::uint64_t room = UpdateFairWindow(now);
  std::size_t total = 0;
  while (WriteOne(now, room, total) && total < quantum) {
  }
  if (dead_) return;
  if (violated_) return Ended(NGTCP2_ERR_PROTO, now);
  if (established_) SetKeepAlive();
  ngtcp2_conn_update_pkt_tx_time(conn_, now);
  // A peer can bring about a timer that is due and stays due, whatever is done.
  const bool stuck = total == 0 && ngtcp2_conn_get_expiry(conn_) <= now;
  notBefore_ = stuck ? now + kMinPause : 0;
}

// The probe timeout doubles for as long as nothing is answered, and with it the time until it is
// noticed that the path carries packets again. The answer to a sign of life tells that sooner.
void PtcpConnection::SetKeepAlive() {
  const bool waiting = sent_ != out_.Begin();
  ngtcp2_conn_set_keep_alive_timeout(
      conn_, waiting ? std::max(kKeepAliveWaiting, kKeepAliveTimeouts * ngtcp2_conn_get_pto(conn_))
                     : kKeepAlive);
}

// A path that has become narrower swallows what is longer and lets everything else through, also
// the signs of life. ngtcp2 does not look for that once it has found a size.
void PtcpConnection::NoticeNarrowPath(Time now) {
  if (out_.Begin() != progressedTo_ || sent_ == out_.Begin()) {
    progressedTo_ = out_.Begin();
    progressed_ = now;
    return;
  }
  const Time since = now - progressed_;
  if (!loopback_ && since >= kNoProgress &&
      since >= kNoProgressTimeouts * ngtcp2_conn_get_pto(conn_))
    largestPacket_ = kSmallDatagram;
}

// How many new bytes may be sent now. Inside a machine there is no path to share.
std::uint64_t PtcpConnection::UpdateFairWindow(Time now) {
  if (loopback_) return UINT64_MAX;
  const ngtcp2::PathState path = ngtcp2::GetPathState(conn_);
  FairWindow::Seen seen{};
  seen.inFlight = path.inFlight;
  seen.delivered = datagramBytesOut_ - std::min(path.inFlight, datagramBytesOut_);
  seen.packet = kMaxDatagram;
  seen.leastRtt = path.leastRtt;
  seen.rtt = path.rtt;
  seen.rttVariation = path.rttVariation;
  seen.lost = path.lastLoss != kNever && path.lastLoss != lastLoss_;
  lastLoss_ = path.lastLoss;
  if (path.leastRtt != kNever) fairWindow_.Update(seen, now);
  return fairWindow_.Room(path.inFlight);
}

// What the next packet may take of the stream: nothing, bytes, or its end.
struct PtcpConnection::Offer {
  std::int64_t stream = -1;
  std::uint32_t flags = NGTCP2_WRITE_STREAM_FLAG_NONE;
  std::array<ngtcp2_vec, 2> pieces{};
  std::size_t count = 0;
};

PtcpConnection::Offer PtcpConnection::MakeOffer(bool room) {
  Offer offer;
  const bool mayWrite = stream_ >= 0 && established_ && !blocked_ && !finishSent_ && room &&
                        sent_ - out_.Begin() < kMaxUnacknowledged;
  if (!mayWrite || (Unsent() == 0 && !finishing_)) return offer;
  offer.stream = stream_;
  for (std::uint64_t at = sent_; at != out_.End() && offer.count < offer.pieces.size();) {
    const std::span<char> piece = out_.View(at);
    offer.pieces[offer.count++] = {reinterpret_cast<std::uint8_t*>(piece.data()), piece.size()};
    at += piece.size();
  }
  if (Unsent() == 0) offer.flags = NGTCP2_WRITE_STREAM_FLAG_FIN;
  return offer;
}

// False when there is nothing more to send for now. What is sent again needs no room.
bool PtcpConnection::WriteOne(Time now, std::uint64_t room, std::size_t& total) {
  std::array<std::uint8_t, kMaxDatagramLoopback> packet;
  const Offer offer = MakeOffer(total < room);
  ngtcp2_ssize taken = -1;
  const ngtcp2_ssize length =
      ngtcp2_conn_writev_stream(conn_, nullptr, nullptr, packet.data(), largestPacket_, &taken,
                                offer.flags, offer.stream, offer.pieces.data(), offer.count, now);
  if (length == NGTCP2_ERR_STREAM_DATA_BLOCKED) {
    blocked_ = true;
    return true;
  }
  if (length < 0) {
    Ended(static_cast<int>(length), now);
    return false;
  }
  if (taken >= 0) {
    sent_ += static_cast<std::uint64_t>(taken);
    if (offer.flags == NGTCP2_WRITE_STREAM_FLAG_FIN) finishSent_ = true;
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

// In short packets the peer's id follows the first byte, in long ones the version and its length.
bool PtcpConnection::MayHaveSent(Bytes packet) const {
  if (dead_ || packet.empty()) return false;
  const ngtcp2_cid& id = *ngtcp2_conn_get_dcid(conn_);
  const std::size_t at = HasLongHeader(packet) ? 6 : 1;
  return packet.size() >= at + id.datalen &&
         std::equal(id.data, id.data + id.datalen, packet.begin() + static_cast<int>(at));
}

// --- ending ---

// ngtcp2 has told that it is over, or that the peer is at fault, who is told then.
void PtcpConnection::Ended(int error, Time now) {
  if (error == NGTCP2_ERR_DRAINING) {
    const CloseError told = ngtcp2::ReceivedError(conn_);
    if (told.type == ngtcp2::kApplicationClose && told.error_code == kClosedInOrder) return Fail(0);
    if (told.type == ngtcp2::kTransportClose && told.error_code == NGTCP2_CONNECTION_REFUSED)
      return Fail(ECONNREFUSED);
    return Fail(ECONNRESET);
  }
  const bool silent = error == NGTCP2_ERR_DROP_CONN || error == NGTCP2_ERR_RETRY ||
                      error == NGTCP2_ERR_IDLE_CLOSE || error == NGTCP2_ERR_CLOSING ||
                      ngtcp2_err_is_fatal(error) != 0;
  if (!silent) {
    CloseError told;
    ngtcp2::SetLibraryError(told, error);
    SendClose(told, now);
  }
  Fail(noMemory_ ? ENOMEM : ReasonOf(error));
}

void PtcpConnection::Close(bool inOrder, Time now) {
  if (dead_) return;
  if (conn_ == nullptr) return Fail(ECONNABORTED);  // it never began
  CloseError told;
  ngtcp2::SetApplicationError(told, inOrder ? kClosedInOrder : kGivenUp);
  SendClose(told, now);
  Fail(inOrder ? 0 : ECONNABORTED);
}

void PtcpConnection::SendClose(const CloseError& error, Time now) {
  std::array<std::uint8_t, kMaxDatagram> packet;
  std::size_t room = packet.size();
  if (server_ && !established_)  // the address is not proved
    room = static_cast<std::size_t>(std::min<std::uint64_t>(room, UnprovedRoom()));
  const ngtcp2_ssize length =
      ngtcp2_conn_write_connection_close(conn_, nullptr, nullptr, packet.data(), room, &error, now);
  if (length > 0) CountAndSend(Bytes(packet).first(static_cast<std::size_t>(length)));
}

void PtcpConnection::Fail(int reason) {
  if (std::exchange(dead_, true)) return;
  reason_ = reason;
}

}  // namespace ptcp
