#include "sim/network.h"

#include <utility>

namespace skorra::sim {

Network::Network(World& world) : world_(world) {
  world_.SetNetwork([this](const SentDatagram& sent) { OnSent(sent); });
}

Network::~Network() { world_.SetNetwork(nullptr); }

void Network::AddServer(const net::IPEndPoint& address, ServerOptions options) {
  Link to_server(options.to_server, world_.begin_us());
  Link to_client(options.to_client, world_.begin_us());
  sites_.insert_or_assign(address,
                          Site{Server(std::move(options)), std::move(to_server), std::move(to_client)});
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
  LinkFate fate = LinkFate::kCarried;
  for (const Arrival& arrival :
       site->second.to_server.Transmit(sent.bytes, sent.sent_ticks_us, world_.random(), &fate)) {
    world_.ScheduleAt(arrival.at_us, [this, sent, arrival] { OnArrivedAtServer(sent, arrival); });
  }
  if (fate != LinkFate::kCarried) {
    world_.Log("request to %s: %s", sent.server.ToString().c_str(), LinkFateName(fate));
  }
}

// The moment is that of the arrival: the event itself may have waited for a task that blocked.
void Network::OnArrivedAtServer(const SentDatagram& sent, const Arrival& arrival) {
  const auto site = sites_.find(sent.server);
  if (site == sites_.end()) {
    return;
  }
  const std::optional<ServerReply> reply =
      site->second.server.Answer(arrival.bytes, sent.client, world_.TrueAt(arrival.at_us),
                                 arrival.at_us - world_.begin_us(), world_.random());
  if (!reply) {
    world_.Log("request to %s: not answered", sent.server.ToString().c_str());
    return;
  }
  LinkFate fate = LinkFate::kCarried;
  for (Arrival& back : site->second.to_client.Transmit(reply->bytes, arrival.at_us + reply->after_us,
                                                       world_.random(), &fate)) {
    world_.DeliverAt(sent.server, sent.client, std::move(back.bytes), back.at_us);
  }
  if (fate != LinkFate::kCarried) {
    world_.Log("reply from %s: %s", sent.server.ToString().c_str(), LinkFateName(fate));
  }
}

}  // namespace skorra::sim
