// catalogue.h - which devices a peer offers, asked for over the LAN before
// a dial.
//
// A peer drops a request for a chain that names a device it does not have
// and tells nobody, so a dialler would only see nothing arrive. Before it
// dials, arbor-peer asks the peer for its devices under an AS code of its
// own (kCatalogueAsc) and can then say which name is wrong. A peer that is
// not an arbor-peer does not answer; the dial then goes ahead unchecked.
//
//   ask:    "MainCmd=PeerDevicesAsk;"
//   answer: "MainCmd=PeerDevices;Name=<peer>;Sources=a:demo,b:gst;
//            Sinks=n:null;Transforms=;"
//
// The handler runs on the transport's threads; it answers from there and
// hands an answer to the waiting AskCatalogue under a short lock.
#ifndef ARBOR_TOOLS_PEER_CATALOGUE_H
#define ARBOR_TOOLS_PEER_CATALOGUE_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace arbor_peer {

// The AS code of the catalogue's texts, beside the dial's own (kDialAsc).
inline constexpr int32_t kCatalogueAsc = 201;

struct Catalogue {
  std::string name;
  // (device name, kind) of each role.
  std::vector<std::pair<std::string, std::string>> sources, sinks, transforms;

  // The kind of the device called name on that peer, or "" when it has none.
  std::string KindOf(const std::string& name) const;
  // "a, b, c": every device name, for an error line.
  std::string Names() const;
};

// Enters the handler that answers asks with this process's devices, as
// peer_name. After SysInit.
void ServeCatalogue(const std::string& peer_name);

// Asks peer (a connected LAN peer id) and waits up to timeout_ms for the
// answer. false when none came (not an arbor-peer, or the link failed).
bool AskCatalogue(uint16_t peer, int timeout_ms, Catalogue* out);

// The answer text for the devices of this process (exposed for tests).
std::string CatalogueText(const std::string& peer_name);

// Reads an answer text; false for a text that is not one.
bool ParseCatalogue(const std::string& text, Catalogue* out);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_CATALOGUE_H
