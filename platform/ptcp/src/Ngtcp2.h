// Ngtcp2.h - the library that runs the protocol, under one face for all versions that we build
// with. Included by sources of this folder only.
#pragma once

#include <ngtcp2/ngtcp2.h>

#include <cstddef>
#include <cstdint>

#include "ConnectionId.h"
#include "PacketKey.h"

#if NGTCP2_VERSION_NUM < 0x000c00
#error "ngtcp2 0.12 or newer is needed"
#endif

namespace ptcp::ngtcp2 {

// Times in nanoseconds; UINT64_MAX: there is none.
struct PathState {
  std::uint64_t inFlight;  // bytes
  std::uint64_t leastRtt;
  std::uint64_t rtt;
  std::uint64_t rttVariation;
  std::uint64_t lastLoss;  // start of the last recovery period; from 1.0 on never told
};

#if NGTCP2_VERSION_NUM >= 0x010000
using Level = ngtcp2_encryption_level;
using CloseError = ngtcp2_ccerr;
inline constexpr Level kInitialLevel = NGTCP2_ENCRYPTION_LEVEL_INITIAL;
inline constexpr Level kHandshakeLevel = NGTCP2_ENCRYPTION_LEVEL_HANDSHAKE;
inline constexpr auto kCongestionControl = NGTCP2_CC_ALGO_BBR;  // version 2 since 1.0
inline constexpr auto kTransportClose = NGTCP2_CCERR_TYPE_TRANSPORT;
inline constexpr auto kApplicationClose = NGTCP2_CCERR_TYPE_APPLICATION;

inline void SetApplicationError(CloseError& error, std::uint64_t code) {
  ngtcp2_ccerr_default(&error);
  ngtcp2_ccerr_set_application_error(&error, code, nullptr, 0);
}
inline void SetLibraryError(CloseError& error, int code) {
  ngtcp2_ccerr_default(&error);
  ngtcp2_ccerr_set_liberr(&error, code, nullptr, 0);
}
inline CloseError ReceivedError(ngtcp2_conn* conn) { return *ngtcp2_conn_get_ccerr(conn); }
inline int DecodeParams(ngtcp2_conn* conn, Bytes encoded) {
  return ngtcp2_conn_decode_and_set_remote_transport_params(conn, encoded.data(), encoded.size());
}
inline void HandshakeCompleted(ngtcp2_conn* conn) { ngtcp2_conn_tls_handshake_completed(conn); }
inline void SetOriginalId(ngtcp2_transport_params& params, const ngtcp2_cid& id) {
  params.original_dcid = id;
  params.original_dcid_present = 1;
}
inline Bytes TokenOf(const ngtcp2_pkt_hd& header) { return {header.token, header.tokenlen}; }
inline void SetToken(ngtcp2_settings& settings, Bytes token) {
  settings.token = token.data();
  settings.tokenlen = token.size();
}
// These versions do not tell of losses.
inline PathState GetPathState(ngtcp2_conn* conn) {
  ngtcp2_conn_info info;
  ngtcp2_conn_get_conn_info(conn, &info);
  return {info.bytes_in_flight, info.min_rtt, info.smoothed_rtt, info.rttvar, UINT64_MAX};
}
#else
using Level = ngtcp2_crypto_level;
using CloseError = ngtcp2_connection_close_error;
inline constexpr Level kInitialLevel = NGTCP2_CRYPTO_LEVEL_INITIAL;
inline constexpr Level kHandshakeLevel = NGTCP2_CRYPTO_LEVEL_HANDSHAKE;
inline constexpr auto kCongestionControl = NGTCP2_CC_ALGO_BBR2;
inline constexpr auto kTransportClose = NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_TRANSPORT;
inline constexpr auto kApplicationClose = NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION;

inline void SetApplicationError(CloseError& error, std::uint64_t code) {
  ngtcp2_connection_close_error_default(&error);
  ngtcp2_connection_close_error_set_application_error(&error, code, nullptr, 0);
}
inline void SetLibraryError(CloseError& error, int code) {
  ngtcp2_connection_close_error_default(&error);
  ngtcp2_connection_close_error_set_transport_error_liberr(&error, code, nullptr, 0);
}
inline CloseError ReceivedError(ngtcp2_conn* conn) {
  CloseError error;
  ngtcp2_conn_get_connection_close_error(conn, &error);
  return error;
}
inline int DecodeParams(ngtcp2_conn* conn, Bytes encoded) {
  return ngtcp2_conn_decode_remote_transport_params(conn, encoded.data(), encoded.size());
}
inline void HandshakeCompleted(ngtcp2_conn* conn) { ngtcp2_conn_handshake_completed(conn); }
inline void SetOriginalId(ngtcp2_transport_params& params, const ngtcp2_cid& id) {
  params.original_dcid = id;
}
inline Bytes TokenOf(const ngtcp2_pkt_hd& header) { return {header.token.base, header.token.len}; }
inline void SetToken(ngtcp2_settings& settings, Bytes token) {
  settings.token = {const_cast<std::uint8_t*>(token.data()), token.size()};
}
inline PathState GetPathState(ngtcp2_conn* conn) {
  ngtcp2_conn_stat stat;
  ngtcp2_conn_get_conn_stat(conn, &stat);
  return {stat.bytes_in_flight, stat.min_rtt, stat.smoothed_rtt, stat.rttvar,
          stat.congestion_recovery_start_ts};
}
#endif

inline ngtcp2_cid ToCid(const ConnectionId& id) {
  ngtcp2_cid cid;
  ngtcp2_cid_init(&cid, id.bytes.data(), id.size);
  return cid;
}

inline ConnectionId FromCid(const ngtcp2_cid& cid) { return ConnectionId({cid.data, cid.datalen}); }

}  // namespace ptcp::ngtcp2
