// keys.h - Redis key names of a queue manager and its queues (layout in scripts.h), and names.
#pragma once

#include <string>
#include <string_view>

namespace kxic {

constexpr int kMdLength = 364;
constexpr int kNameLength = 48;
constexpr int kMsgIdLength = 24;

inline std::string qmgrPrefix(const std::string& qmgr) { return "kx:{" + qmgr + "}:"; }

struct QueueKeys {
  std::string q, gl, pl, w, h, z, c;  // c: the change channel
  std::string b;                      // back-out counts
};

inline QueueKeys queueKeys(const std::string& qmgr, const std::string& queue) {
  std::string p = qmgrPrefix(qmgr);
  return {p + "q:" + queue, p + "gl:" + queue, p + "pl:" + queue, p + "w:" + queue,
          p + "h:" + queue, p + "z:" + queue, p + "c:" + queue, p + "b:" + queue};
}

// The dead-letter queue `kxq create-qmgr` makes; messages backed out as often as their
// queue's threshold (kx:{QM}:bt, default 5) move there.
constexpr const char* kDeadLetterQueue = "KX.DEAD.LETTER";

inline bool nameChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '%' || c == '/' || c == '-';
}

// Names: 1 to 48 characters of A-Z a-z 0-9 . _ % / - (queue managers: no "/", not starting
// "."), the same rules as the local queue manager.
inline bool validQueueName(std::string_view name) {
  if (name.empty() || name.size() > size_t(kNameLength)) return false;
  for (char c : name)
    if (!nameChar(c)) return false;
  return true;
}

inline bool validQmgrName(std::string_view name) {
  return validQueueName(name) && name[0] != '.' && name.find('/') == std::string_view::npos;
}

// A blank or NUL padded fixed field as a name: cut at NUL, trailing blanks trimmed.
inline std::string fieldName(const char* field, size_t room) {
  if (!field) return {};
  size_t n = 0;
  while (n < room && field[n] != '\0') ++n;
  while (n > 0 && field[n - 1] == ' ') --n;
  return std::string(field, n);
}

}  // namespace kxic
