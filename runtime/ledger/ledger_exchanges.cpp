#include "runtime/ledger/ledger_exchanges.h"

#include <algorithm>

namespace morvik::runtime {
namespace {

/// This much of a sealed text identifies it: it begins with its nonce.
constexpr size_t kMarkBytes = 32;

std::string markOf(std::string_view sealed) {
  return std::string(sealed.substr(0, kMarkBytes));
}

/// The sealed text in a form; empty if there is none.
std::string_view sealedIn(std::string_view body) {
  constexpr std::string_view kParameter = "j=";
  size_t at = body.starts_with(kParameter) ? 0 : body.find("&j=");
  if (at == std::string_view::npos)
    return {};
  at = body.find('=', at) + 1;
  return body.substr(at, body.find('&', at) - at);
}

}  // namespace

void LedgerExchanges::wasSealed(std::string_view sealed, LedgerExchange payload) {
  if (payload.endpoint == LedgerEndpoint::kTracking) {
    std::erase_if(unsent_, [](const Unsent& each) { return each.exchange.endpoint == LedgerEndpoint::kTracking; });
    refused_.reset();
  }
  if (unsent_.size() == kMaxUnsentPayloads)
    unsent_.erase(unsent_.begin());
  unsent_.push_back({markOf(sealed), std::move(payload)});
}

LedgerExchange LedgerExchanges::takeSealed(LedgerEndpoint endpoint, std::string_view body) {
  const std::string mark = markOf(sealedIn(body));
  const auto found = std::find_if(unsent_.begin(), unsent_.end(), [&](const Unsent& each) {
    return each.exchange.endpoint == endpoint && each.mark == mark;
  });
  LedgerExchange exchange;
  if (found != unsent_.end()) {
    exchange = std::move(found->exchange);
    unsent_.erase(found);
  }
  exchange.endpoint = endpoint;
  return exchange;
}

uint64_t LedgerExchanges::begin(LedgerExchange exchange) {
  const uint64_t id = ++last_exchange_;
  exchanges_.emplace(id, std::move(exchange));
  return id;
}

void LedgerExchanges::handlerBegins(uint64_t id) {
  running_ = id;
  running_thread_ = std::this_thread::get_id();
}

const LedgerExchange* LedgerExchanges::find(uint64_t id) const {
  const auto found = exchanges_.find(id);
  return found == exchanges_.end() ? nullptr : &found->second;
}

LedgerExchange* LedgerExchanges::running() {
  if (running_ == 0 || running_thread_ != std::this_thread::get_id())
    return nullptr;
  return &exchanges_.at(running_);
}

LedgerExchange LedgerExchanges::end(uint64_t id) {
  running_ = 0;
  LedgerExchange ended = std::move(exchanges_.extract(id).mapped());
  // Its ids stay noted, and the answer to an earlier batch that is still under way may delete them.
  if (ended.endpoint == LedgerEndpoint::kTracking && ended.answer && !ended.isAccepted())
    refused_ = ended;
  return ended;
}

bool LedgerExchanges::isLeftOut(const kit::Value& event_id) const {
  const auto leaves_out = [&](const LedgerExchange& exchange) {
    return !exchange.left_out_id.isAbsent() && exchange.left_out_id == event_id;
  };
  return (refused_ && leaves_out(*refused_)) ||
         std::any_of(exchanges_.begin(), exchanges_.end(), [&](const auto& each) { return leaves_out(each.second); }) ||
         std::any_of(unsent_.begin(), unsent_.end(), [&](const Unsent& each) { return leaves_out(each.exchange); });
}

bool LedgerExchanges::isNotedAlone(const kit::Value& event_id) {
  if (refused_ && refused_->activities.contains(event_id.string()))
    return true;
  return std::any_of(unsent_.begin(), unsent_.end(),
                     [&](Unsent& each) { return each.exchange.activities.contains(event_id.string()); });
}

bool LedgerExchanges::noteStoredClick(const kit::Value& click) {
  const auto holder = std::find_if(exchanges_.begin(), exchanges_.end(), [&](const auto& each) {
    return each.second.holds_click && each.second.click == click;
  });
  if (holder == exchanges_.end())
    return false;
  holder->second.holds_click = false;
  return true;
}

std::vector<uint64_t> LedgerExchanges::carriersOfValue(size_t slot, uint64_t version,
                                                       const LedgerExchange* except) const {
  std::vector<uint64_t> carriers;
  for (const auto& [id, exchange] : exchanges_) {
    if (&exchange != except && exchange.values[slot] == version)
      carriers.push_back(id);
  }
  return carriers;
}

void LedgerExchanges::listShrank(LedgerKind kind, const ListChange& change) {
  const auto shrink = [&](LedgerExchange& exchange) {
    size_t& leading = exchange.leading[static_cast<size_t>(kind)];
    size_t gone = 0;
    for (const ElementRange& range : change.removed)
      gone += range.first < leading ? std::min(range.count, leading - range.first) : 0;
    leading -= gone;
  };
  for (auto& [id, exchange] : exchanges_)
    shrink(exchange);
  for (Unsent& unsent : unsent_)
    shrink(unsent.exchange);
}

const std::vector<uint64_t>& LedgerCarriers::of(const kit::Value& record, size_t index) {
  if (!std::exchange(are_others_known_, true)) {
    for (auto& [id, exchange] : exchanges_.exchanges_) {
      if (&exchange != except_ && exchange.endpoint == ledgerEndpointOf(kind_))
        others_.emplace_back(id, &exchange);
    }
  }
  carriers_.clear();
  for (const auto& [id, exchange] : others_) {
    if (exchange->carries(kind_, record, index))
      carriers_.push_back(id);
  }
  return carriers_;
}

}  // namespace morvik::runtime
