// SPDX-License-Identifier: Apache-2.0
#include "sim/network.h"

#include <utility>

namespace skorra::sim {

Network::Network(World& world) : world_(world) {
  world_.SetNetwork([this](const SentDatagram& sent) { OnSent(sent); });
}

Network::~Network() { world_.SetNetwork(nullptr); }

void Network::AddServer(const net::IPEndPoint& address, netmodel::ServerOptions options) {
  netmodel::Link to_server(options.to_server, world_.begin_ticks_us());
  netmodel::Link to_client(options.to_client, world_.begin_ticks_us());
  sites_.insert_or_assign(
      address, Site{netmodel::Server(std::move(options)), std::move(to_server), std::move(to_client)});
}

void Network::OnSent(const SentDatagram& sent) {
  requests_[sent.server].push_back(sent);
  for (const auto& listener : listeners_) {
    listener(sent);
  }
  const auto site = sites_.find(sent.server);
  if (site == sites_.end()) {
    return;
  }
  netmodel::LinkFate fate = netmodel::LinkFate::kCarried;
  for (const netmodel::Arrival& arrival :
       site->second.to_server.Transmit(sent.bytes, sent.sent_ticks_us, world_.random(), &fate)) {
    world_.ScheduleAt(arrival.at_ticks_us, [this, sent, arrival] { OnArrivedAtServer(sent, arrival); });
  }
  if (fate != netmodel::LinkFate::kCarried) {
    world_.Log("request to %s: %s", sent.server.ToString().c_str(), netmodel::LinkFateName(fate));
  }
}

// Works with the time of the arrival: the event itself may run later, when a task blocked.
void Network::OnArrivedAtServer(const SentDatagram& sent, const netmodel::Arrival& arrival) {
  const auto site = sites_.find(sent.server);
  if (site == sites_.end()) {
    return;
  }
  const std::optional<netmodel::ServerReply> reply =
      site->second.server.Answer(arrival.bytes, sent.client, world_.TrueAt(arrival.at_ticks_us),
                                 arrival.at_ticks_us - world_.begin_ticks_us(), world_.random());
  if (!reply) {
    world_.Log("request to %s: not answered", sent.server.ToString().c_str());
    return;
  }
  netmodel::LinkFate fate = netmodel::LinkFate::kCarried;
  for (netmodel::Arrival& back : site->second.to_client.Transmit(
           reply->bytes, arrival.at_ticks_us + reply->after_us, world_.random(), &fate)) {
    world_.DeliverAt(sent.server, sent.client, std::move(back.bytes), back.at_ticks_us);
  }
  if (fate != netmodel::LinkFate::kCarried) {
    world_.Log("reply from %s: %s", sent.server.ToString().c_str(), netmodel::LinkFateName(fate));
  }
}

}  // namespace skorra::sim
