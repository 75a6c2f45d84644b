// RetryTokens.cpp - see RetryTokens.h.
#include "RetryTokens.h"

#include <algorithm>
#include <cstring>

namespace ptcp {

using keelbase::CAWInetAddr;

namespace {

constexpr std::size_t kTimeSize = sizeof(Time);

}  // namespace

Tag RetryTokens::Sign(Bytes content, const CAWInetAddr& client, const ConnectionId& id) const {
  sockaddr_in address{};
  std::memcpy(&address, client.GetPtr(), sizeof address);
  const auto bytesOf = [](const auto& value) {
    return Bytes(reinterpret_cast<const std::uint8_t*>(&value), sizeof value);
  };
  const std::uint64_t idSize = id.size;
  return key_.Sign(
      {bytesOf(address.sin_addr), bytesOf(address.sin_port), bytesOf(idSize), id.View(), content});
}

std::vector<std::uint8_t> RetryTokens::Make(const CAWInetAddr& client, const ConnectionId& original,
                                            const ConnectionId& comeBackWith, Time now) const {
  std::vector<std::uint8_t> token(kTimeSize + original.size + kTagSize);
  std::memcpy(token.data(), &now, kTimeSize);  // only we read it
  std::copy_n(original.View().begin(), original.size, token.begin() + kTimeSize);
  const Tag tag = Sign(Bytes(token).first(token.size() - kTagSize), client, comeBackWith);
  std::copy(tag.begin(), tag.end(), token.end() - kTagSize);
  return token;
}

std::optional<ConnectionId> RetryTokens::Check(Bytes token, const CAWInetAddr& client,
                                               const ConnectionId& cameWith, Time now) const {
  if (token.size() < kTimeSize + kTagSize ||
      token.size() > kTimeSize + ConnectionId::kMaxSize + kTagSize)
    return std::nullopt;
  const Bytes content = token.first(token.size() - kTagSize);
  const Tag tag = Sign(content, client, cameWith);
  if (!std::equal(tag.begin(), tag.end(), token.last(kTagSize).begin())) return std::nullopt;
  Time made = 0;
  std::memcpy(&made, content.data(), kTimeSize);
  if (now < made || now - made > kValidity) return std::nullopt;
  return ConnectionId(content.subspan(kTimeSize));
}

}  // namespace ptcp
