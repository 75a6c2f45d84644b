// StreamSteps.h - steps that several stream classes take alike.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/SendQueue.h"

namespace zarn::utils {

// The stream's pointer is null before the platform is called.
template <class Connector>
void DropConnector(keelbase::CAWAutoPtr<Connector>& held) {
  const auto connector = std::move(held);
  if (connector) connector->CancelConnect();
}

template <class Transport>
void DropTransport(keelbase::CAWAutoPtr<Transport>& held, long reason) {
  const auto transport = std::move(held);
  if (transport) transport->Disconnect(reason);
}

template <class Transport, class Address>
void ReadAddresses(Transport& transport, Address& peer, Address& local) {
  transport.GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer);
  transport.GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &local);
}

// Sends `data` by `send(block)`, a transport's SendData, in order with all that was sent before,
// and advances it over what was sent or queued. 0; an error of the transport, and `data` is as it
// was; 10001 without memory, after `close()` when part of the message was on its way already:
// whatever came next would be taken for its rest.
template <class Send, class Close>
keelbase::AWResult SendAndAdvance(keelbase::CAWMessageBlock& data, detail::SendQueue& queue,
                                  CZARNStreamCounters& counters, Send send, Close close) {
  const std::size_t length = data.GetChainedLength();
  const keelbase::AWResult result = queue.SendInOrder(data, send);
  counters.sendQueueHighMark = std::max(counters.sendQueueHighMark, queue.GetLength());
  if (result == keelbase::AW_ERROR_PARTIAL_DATA) {
    close();
    return keelbase::AW_ERROR_FAILURE;
  }
  if (result != keelbase::AW_OK) return result;
  const std::size_t left = data.GetChainedLength();  // queued, or not advanced by the transport
  if (left != 0) data.AdvanceChainedReadPtr(left);
  ++counters.messagesSent;
  counters.bytesSent += length;
  return keelbase::AW_OK;
}

}  // namespace zarn::utils
