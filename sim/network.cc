#include "sim/network.h"

#include <utility>

namespace skorra::sim {

Network::Network(World& world) : world_(world) {
  world_.SetNetwork([this](const SentDatagram& sent) { OnSent(sent); });
}

Network::~Network() { world_.SetNetwork(nullptr); }

void Network::AddServer(const net::IPEndPoint& address, ServerOptions options) {
  servers_[address] = std::move(options);
}

void Network::OnSent(const SentDatagram& sent) {
  const size_t index = requests_[sent.server].size();
  requests_[sent.server].push_back(sent);
  const auto server = servers_.find(sent.server);
  const std::optional<NtpPacket> request = DecodePacket(sent.bytes);
  if (server == servers_.end() || !request) {
    return;
  }
  const ServerOptions& options = server->second;
  Exchange exchange{.index = index,
                    .clock_error_us = options.clock_error_us,
                    .to_server_us = options.to_server_us,
                    .to_client_us = options.to_client_us,
                    .reply = {.version = request->version,
                              .mode = kNtpModeServer,
                              .stratum = 2,
                              .poll = request->poll,
                              .precision = -20,
                              .origin_timestamp = request->transmit_timestamp}};
  if (options.script) {
    options.script(exchange);
  }
  if (!exchange.is_answered) {
    return;
  }
  const NtpTimestamp server_time =
      NtpTimestampFromUs(world_.true_us() + exchange.to_server_us + exchange.clock_error_us);
  for (NtpTimestamp* stamp : {&exchange.reply.receive_timestamp, &exchange.reply.transmit_timestamp}) {
    if (*stamp == 0) {
      *stamp = server_time;
    }
  }
  const auto bytes = EncodePacket(exchange.reply);
  world_.Deliver(sent.server, sent.client, {bytes.begin(), bytes.end()},
                 base::TimeDelta::FromMicroseconds(exchange.to_server_us + exchange.to_client_us));
}

}  // namespace skorra::sim
