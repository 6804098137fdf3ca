// catalogue.cc - the device catalogue between arbor-peer processes
// (catalogue.h).
#include "catalogue.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "arbor/asc.h"
#include "arbor/send.h"
#include "devices.h"
#include "host.h"

namespace arbor_peer {

namespace {

constexpr const char* kAsk = "PeerDevicesAsk";
constexpr const char* kAnswer = "PeerDevices";
// Answers kept for askers at most (one per peer asked).
constexpr size_t kMaxAnswers = 64;

struct Answers {
  std::mutex mutex;
  std::condition_variable arrived;
  std::map<uint32_t, std::string> by_peer;  // guarded by mutex
  std::string self_name;                    // set before the handler is entered
};

Answers& TheAnswers() {
  static Answers* answers = new Answers;  // the handler may run until SysExit returns
  return *answers;
}

// Asks and answers under kCatalogueAsc; takes both (a negative result), so
// the engine's session handler never sees them. Anything else goes on.
int32_t OnCatalogueText(uint32_t from, uint32_t size, const char* data) {
  if (data == nullptr || size == 0) return 0;
  const std::string text(data, size);
  const std::string command = DictValue(text, "MainCmd");
  Answers& answers = TheAnswers();
  if (command == kAsk) {
    if (from == 0) return -1;  // only a peer can be answered
    const std::string reply = CatalogueText(answers.self_name);
    sendasc(from, kCatalogueAsc, reply.data(), static_cast<uint32_t>(reply.size()), 0);
    return -1;
  }
  if (command == kAnswer) {
    std::lock_guard<std::mutex> lock(answers.mutex);
    if (answers.by_peer.size() < kMaxAnswers || answers.by_peer.count(from) != 0)
      answers.by_peer[from] = text;
    answers.arrived.notify_all();
    return -1;
  }
  return 0;
}

void Split(const std::string& list, std::vector<std::pair<std::string, std::string>>* out) {
  size_t start = 0;
  while (start < list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    const std::string item = list.substr(start, comma - start);
    const size_t colon = item.find(':');
    if (!item.empty())
      out->emplace_back(item.substr(0, colon),
                        colon == std::string::npos ? "" : item.substr(colon + 1));
    start = comma + 1;
  }
}

}  // namespace

std::string Catalogue::KindOf(const std::string& device) const {
  for (const auto* list : {&sources, &sinks, &transforms})
    for (const auto& [entry, kind] : *list)
      if (entry == device) return kind.empty() ? "?" : kind;
  return "";
}

std::string Catalogue::Names() const {
  std::string text;
  for (const auto* list : {&sources, &transforms, &sinks})
    for (const auto& entry : *list) text += (text.empty() ? "" : ", ") + entry.first;
  return text.empty() ? "nothing" : text;
}

std::string CatalogueText(const std::string& peer_name) {
  std::string sources, sinks, transforms;
  for (const DeviceSpec& spec : Devices()) {
    std::string& list = spec.role == Role::kSource ? sources
                        : spec.role == Role::kSink ? sinks
                                                   : transforms;
    list += (list.empty() ? "" : ",") + spec.name + ":" + spec.kind;
  }
  return std::string("MainCmd=") + kAnswer + ";Name=" + peer_name + ";Sources=" + sources +
         ";Sinks=" + sinks + ";Transforms=" + transforms + ";";
}

bool ParseCatalogue(const std::string& text, Catalogue* out) {
  if (DictValue(text, "MainCmd") != kAnswer) return false;
  Catalogue catalogue;
  catalogue.name = DictValue(text, "Name");
  Split(DictValue(text, "Sources"), &catalogue.sources);
  Split(DictValue(text, "Sinks"), &catalogue.sinks);
  Split(DictValue(text, "Transforms"), &catalogue.transforms);
  *out = std::move(catalogue);
  return true;
}

void ServeCatalogue(const std::string& peer_name) {
  TheAnswers().self_name = peer_name;
  SysRegistASLan(kCatalogueAsc, nullptr, reinterpret_cast<AsHandler>(OnCatalogueText));
}

bool AskCatalogue(uint16_t peer, int timeout_ms, Catalogue* out) {
  Answers& answers = TheAnswers();
  {
    std::lock_guard<std::mutex> lock(answers.mutex);
    answers.by_peer.erase(peer);
  }
  const std::string ask = std::string("MainCmd=") + kAsk + ";";
  if (sendasc(peer, kCatalogueAsc, ask.data(), static_cast<uint32_t>(ask.size()), 0) < 0)
    return false;
  std::unique_lock<std::mutex> lock(answers.mutex);
  const bool came = answers.arrived.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
    return answers.by_peer.count(peer) != 0;
  });
  if (!came) return false;
  const std::string text = answers.by_peer[peer];
  lock.unlock();
  return ParseCatalogue(text, out);
}

}  // namespace arbor_peer
