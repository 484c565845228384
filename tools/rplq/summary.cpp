// --summary: counts per message type and format, put times and decoding failures.
#include "tools/rplq/summary.h"

#include <cinttypes>

#include "qmsg/compact.h"

namespace rplq {

std::string typeName(uint8_t type) {
  std::string name = compactTypeName(type);
  return name.rfind("RPLKX_", 0) == 0 ? name : "type " + std::to_string(type);
}

std::string jsonString(const std::string& text) {
  std::string s = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': s += "\\\""; break;
      case '\\': s += "\\\\"; break;
      case '\n': s += "\\n"; break;
      case '\r': s += "\\r"; break;
      case '\t': s += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          s += esc;
        } else {
          s += static_cast<char>(c);
        }
    }
  }
  return s + "\"";
}

void Summary::addCompact(uint8_t type, uint64_t bytes) {
  ++total_.messages;
  total_.bytes += bytes;
  ++byType_[type].messages;
  byType_[type].bytes += bytes;
}

void Summary::addOther(const std::string& kind, uint64_t bytes) {
  ++total_.messages;
  total_.bytes += bytes;
  Tally& t = others_[kind];
  ++t.messages;
  t.bytes += bytes;
}

void Summary::addPutTime(Micros at) {
  if (!hasPut_ || at < oldest_) oldest_ = at;
  if (!hasPut_ || at > newest_) newest_ = at;
  hasPut_ = true;
}

void Summary::addFailure(int64_t position, const std::string& what, const std::string& reason) {
  ++failureCount_;
  if (failures_.size() < kFailuresListed) failures_.push_back({position, what, reason});
}

void Summary::writeTable(FILE* out, const std::string& qmgr, const std::string& queue) const {
  std::fprintf(out, "Queue %s on queue manager %s: %" PRIu64 " messages, %" PRIu64 " bytes\n\n",
               queue.c_str(), qmgr.c_str(), total_.messages, total_.bytes);
  std::fprintf(out, "%-32s %12s %14s\n", "MESSAGE TYPE", "MESSAGES", "BYTES");
  for (int t = 0; t < 256; ++t) {
    const Tally& c = byType_[t];
    if (c.messages == 0) continue;
    std::string name = typeName(static_cast<uint8_t>(t)) + " (" + std::to_string(t) + ")";
    std::fprintf(out, "%-32s %12" PRIu64 " %14" PRIu64 "\n", name.c_str(), c.messages, c.bytes);
  }
  for (const auto& [kind, c] : others_)
    std::fprintf(out, "%-32s %12" PRIu64 " %14" PRIu64 "\n", kind.c_str(), c.messages, c.bytes);
  std::fputc('\n', out);
  if (hasPut_) {
    std::fprintf(out, "Oldest put time: %s\n", isoTime(oldest_).c_str());
    std::fprintf(out, "Newest put time: %s\n", isoTime(newest_).c_str());
  }
  std::fprintf(out, "Decoding failures: %" PRIu64 "\n", failureCount_);
  for (const DecodeFailure& f : failures_)
    std::fprintf(out, "  position %" PRId64 " (%s): %s\n", f.position, f.what.c_str(),
                 f.reason.c_str());
  if (failureCount_ > failures_.size())
    std::fprintf(out, "  ... and %" PRIu64 " more\n", failureCount_ - failures_.size());
}

void Summary::writeJson(FILE* out, const std::string& qmgr, const std::string& queue) const {
  std::fprintf(out, "{\"qmgr\":%s,\"queue\":%s,\"messages\":%" PRIu64 ",\"bytes\":%" PRIu64,
               jsonString(qmgr).c_str(), jsonString(queue).c_str(), total_.messages,
               total_.bytes);
  std::fputs(",\"types\":[", out);
  bool first = true;
  for (int t = 0; t < 256; ++t) {
    const Tally& c = byType_[t];
    if (c.messages == 0) continue;
    std::fprintf(out, "%s{\"msgtype\":%d,\"name\":%s,\"messages\":%" PRIu64 ",\"bytes\":%" PRIu64 "}",
                 first ? "" : ",", t, jsonString(typeName(static_cast<uint8_t>(t))).c_str(),
                 c.messages, c.bytes);
    first = false;
  }
  std::fputs("],\"other_formats\":[", out);
  first = true;
  for (const auto& [kind, c] : others_) {
    std::fprintf(out, "%s{\"format\":%s,\"messages\":%" PRIu64 ",\"bytes\":%" PRIu64 "}",
                 first ? "" : ",", jsonString(kind).c_str(), c.messages, c.bytes);
    first = false;
  }
  std::fputs("]", out);
  if (hasPut_)
    std::fprintf(out, ",\"oldest_put\":\"%s\",\"newest_put\":\"%s\"", isoTime(oldest_).c_str(),
                 isoTime(newest_).c_str());
  std::fprintf(out, ",\"decoding_failures\":%" PRIu64 ",\"failures\":[", failureCount_);
  first = true;
  for (const DecodeFailure& f : failures_) {
    std::fprintf(out, "%s{\"position\":%" PRId64 ",\"message\":%s,\"reason\":%s}", first ? "" : ",",
                 f.position, jsonString(f.what).c_str(), jsonString(f.reason).c_str());
    first = false;
  }
  std::fputs("]", out);
}

}  // namespace rplq
