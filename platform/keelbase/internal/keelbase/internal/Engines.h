// Engines.h - what the engines beneath the transports do alike.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/BufferPool.h"

namespace keelbase::internal {

struct EngineOptions {
  std::size_t readSize = kReadSize;
  std::uint32_t lingerMs = 2000;
};

// Sets what every engine can be told. Nothing: the code is none of these.
template <class Engine>
std::optional<AWResult> SetCommonOption(Engine& engine, EngineOptions& options, int code,
                                        const void* value) {
  if (value == nullptr) return AW_ERROR_FAILURE;
  switch (code) {
    case AW_OPT_STOP_READING:
      engine.StopReading(*static_cast<const bool*>(value));
      return AW_OK;
    case AW_OPT_READ_SIZE:
      options.readSize =
          std::clamp<std::size_t>(*static_cast<const std::uint32_t*>(value), 1, kReadSize);
      return AW_OK;
    case AW_OPT_LINGER:
      options.lingerMs = *static_cast<const std::uint32_t*>(value);
      return AW_OK;
    case AW_OPT_LINGER_DATA:
      return engine.AddLingerData(*static_cast<const CAWMessageBlock*>(value));
    default:
      return std::nullopt;
  }
}

// When the last reference to an engine is gone: one that is open is closed first, which may take a
// while.
template <class Engine>
void DisconnectOrDelete(Engine& engine, bool closed) {
  if (closed) {
    delete &engine;
    return;
  }
  const CAWAutoPtr<Engine> alive(&engine);
  engine.Disconnect();
}

}  // namespace keelbase::internal
