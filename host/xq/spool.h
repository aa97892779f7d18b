// The message-queue spool: every message that lapi_write accepted, one file per message under
// <root>/.winux/spool/<queue>/<sequence>.xml. Header-only so that ftc-host and the tests read the
// spool without linking the queue library; readers link pugixml.
//
// A record file holds the message bytes exactly as written, a line feed, and one trailer line
//   <!--xq-spool time="2026-11-22T04:38:17.123456Z" queue="QV_Event_DB" core="~MASTERXQ"
//       source="UPG_XQ_QUEUE" bytes="1234"-->
// placed after the document so that a message beginning with an XML declaration stays a
// well-formed document. The trailer is written last within the same atomic file, so a record
// with a valid trailer is complete.
#pragma once

#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <pugixml.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace xqspool {

inline const char kTrailerStart[] = "<!--xq-spool ";
inline const char kTrailerEnd[] = "-->\n";
// Zero-padded so that names sort in sequence order.
inline const char kRecordNameFormat[] = "%010llu.xml";

// <root>/.winux/spool
inline std::string SpoolDir(const std::string& root) {
  return root + "/.winux/spool";
}

// Queue names become folder names: anything but letters, digits and "_-.~" is refused rather
// than mapped, so two queues can never share a folder.
inline bool IsValidQueueName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name == "." || name == "..") return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-' || c == '.' || c == '~';
    if (!ok) return false;
  }
  return true;
}

// Messages are read as written: line ends and white space in attribute values are kept, and so
// is a text of white space only.
inline constexpr unsigned kParseFlags =
    pugi::parse_cdata | pugi::parse_escapes | pugi::parse_ws_pcdata;

inline bool Parse(const std::string& text, pugi::xml_document* doc) {
  return doc->load_buffer(text.data(), text.size(), kParseFlags, pugi::encoding_utf8).status ==
         pugi::status_ok;
}

// The text of the first <Field Name="name"> in document order; false when there is none.
inline bool FieldText(const pugi::xml_node& doc, const char* name, std::string* text) {
  pugi::xml_node field = doc.find_node([name](const pugi::xml_node& n) {
    return std::strcmp(n.name(), "Field") == 0 &&
           std::strcmp(n.attribute("Name").value(), name) == 0;
  });
  if (!field) return false;
  text->clear();
  for (const pugi::xml_node& child : field.children())
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
      *text += child.value();
  return true;
}

// Whether some element carries an attribute of that value (the name of a record's group).
inline bool HasAttributeValue(const pugi::xml_node& doc, const char* value) {
  return doc.find_node([value](const pugi::xml_node& n) {
    for (const pugi::xml_attribute& a : n.attributes())
      if (std::strcmp(a.value(), value) == 0) return true;
    return false;
  });
}

}  // namespace xqspool

// One message read back from the spool.
struct SpoolRecord {
  std::string path;   // host path of the record file
  std::string queue;  // destination queue (the folder)
  uint64_t sequence = 0;
  bool complete = false;  // false: the trailer is missing or inconsistent
  std::string time;       // UTC, "YYYY-MM-DDThh:mm:ss.uuuuuuZ"
  std::string core;       // core-queue name, "" when none was given
  std::string source;     // the queue the writer's handle was opened on
  std::string message;    // the bytes given to lapi_write, without the terminating NUL
  // Decoded: "event" (device event), "state" (ready-to-work), "autodeploy", or "message".
  std::string kind;
  std::string code;  // event number, ready-to-work state or AutoDeploy value
  std::string text;  // event message or ready-to-work reason
};

namespace xqspool {

// A message that is not a document of one of the known kinds (or no document) is "message".
inline void DecodeMessage(SpoolRecord* r) {
  const std::string& m = r->message;
  pugi::xml_document doc;
  std::string value;
  bool parsed = Parse(m, &doc);
  if (parsed && HasAttributeValue(doc, "errorLogMsg") && FieldText(doc, "msgNum", &value)) {
    r->kind = "event";
    r->code = value;
    FieldText(doc, "optArgArrayElement", &r->text);
  } else if (parsed && HasAttributeValue(doc, "Ready-to-Work") && FieldText(doc, "State", &value)) {
    r->kind = "state";
    r->code = value;
    FieldText(doc, "Reason", &r->text);
  } else if (parsed && HasAttributeValue(doc, "AutoDeploy") &&
             FieldText(doc, "Settings Installed", &value)) {
    r->kind = "autodeploy";
    r->code = value;
  } else {
    r->kind = "message";
    r->text = m;
  }
}

// Parses one record file's contents. Returns false when the trailer is missing or damaged;
// the record then carries what could be read.
inline bool ParseRecord(const std::string& content, SpoolRecord* r) {
  r->complete = false;
  size_t at = content.rfind(kTrailerStart);
  const size_t endLen = sizeof(kTrailerEnd) - 1;
  if (at == std::string::npos || at == 0 || content[at - 1] != '\n' || content.size() < endLen ||
      content.compare(content.size() - endLen, endLen, kTrailerEnd)) {
    r->message = content;
    DecodeMessage(r);
    return false;
  }
  // The comment's text holds attributes: read as those of an element. Unreadable ones leave
  // the record incomplete.
  const size_t startLen = sizeof(kTrailerStart) - 1;
  pugi::xml_document doc;
  Parse("<t " + content.substr(at + startLen, content.size() - endLen - at - startLen) + "/>",
        &doc);
  pugi::xml_node trailer = doc.first_child();
  r->time = trailer.attribute("time").value();
  r->core = trailer.attribute("core").value();
  r->source = trailer.attribute("source").value();
  if (r->queue.empty()) r->queue = trailer.attribute("queue").value();
  pugi::xml_attribute bytes = trailer.attribute("bytes");
  char* end = nullptr;
  unsigned long long n = std::strtoull(bytes.value(), &end, 10);
  r->message = content.substr(0, at - 1);
  if (bytes && *bytes.value() && *end == '\0' && n == at - 1) r->complete = true;
  DecodeMessage(r);
  return r->complete;
}

inline bool ParseRecordName(const std::string& name, uint64_t* sequence) {
  if (name.size() < 5 || name.compare(name.size() - 4, 4, ".xml") != 0) return false;
  std::string digits = name.substr(0, name.size() - 4);
  if (digits.empty() || digits.size() > 20) return false;
  for (char c : digits)
    if (c < '0' || c > '9') return false;
  *sequence = std::strtoull(digits.c_str(), nullptr, 10);
  return true;
}

inline std::vector<std::string> ListDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (!d) return names;
  while (struct dirent* e = readdir(d)) names.emplace_back(e->d_name);
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// The oldest records of one queue in sequence order, at most limit of them (0: all).
inline std::vector<SpoolRecord> ReadQueue(const std::string& root, const std::string& queue,
                                          size_t limit = 0) {
  std::vector<SpoolRecord> out;
  std::string dir = SpoolDir(root) + "/" + queue;
  std::vector<std::pair<uint64_t, std::string>> names;
  for (const std::string& name : ListDir(dir)) {
    uint64_t sequence = 0;
    if (ParseRecordName(name, &sequence)) names.emplace_back(sequence, name);
  }
  std::sort(names.begin(), names.end());
  for (const auto& [sequence, name] : names) {
    if (limit && out.size() >= limit) break;
    SpoolRecord r;
    r.sequence = sequence;
    r.path = dir + "/" + name;
    r.queue = queue;
    std::ifstream in(r.path, std::ios::binary);
    if (!in) continue;
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ParseRecord(content, &r);
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace xqspool

// Records of one queue (queue empty: of every queue), oldest first. Within a queue the order is
// the sequence; queues are merged by write time, keeping each queue's own order.
inline std::vector<SpoolRecord> ReadSpool(const std::string& root, const std::string& queue) {
  std::vector<std::vector<SpoolRecord>> queues;
  if (!queue.empty()) {
    if (!xqspool::IsValidQueueName(queue)) return {};
    return xqspool::ReadQueue(root, queue);
  }
  for (const std::string& name : xqspool::ListDir(xqspool::SpoolDir(root))) {
    if (!xqspool::IsValidQueueName(name)) continue;
    auto records = xqspool::ReadQueue(root, name);
    if (!records.empty()) queues.push_back(std::move(records));
  }
  std::vector<SpoolRecord> merged;
  std::vector<size_t> next(queues.size(), 0);
  for (;;) {
    int best = -1;
    for (size_t q = 0; q < queues.size(); ++q) {
      if (next[q] >= queues[q].size()) continue;
      if (best < 0 || queues[q][next[q]].time < queues[best][next[best]].time) best = int(q);
    }
    if (best < 0) break;
    merged.push_back(std::move(queues[best][next[best]++]));
  }
  return merged;
}

// Records not yet in seen (by path), in ReadSpool's order; adds them to seen. For --follow.
inline std::vector<SpoolRecord> ReadSpoolNew(const std::string& root, const std::string& queue,
                                             std::set<std::string>* seen) {
  std::vector<SpoolRecord> fresh;
  for (SpoolRecord& r : ReadSpool(root, queue)) {
    if (seen->insert(r.path).second) fresh.push_back(std::move(r));
  }
  return fresh;
}

// One line, no line end:
//   2026-11-22 04:38:17.123Z  QV_Event_DB  event 205181  Demo, 1.0
//   2026-11-22 04:38:18.004Z  QV_CLIENT    state 4  Device Upgrading
inline std::string FormatSpoolRecord(const SpoolRecord& r) {
  std::ostringstream line;
  std::string time = r.time;
  // Milliseconds are enough to read; the Z keeps it plain that the time is UTC.
  if (time.size() >= 23) time = time.substr(0, 10) + " " + time.substr(11, 12) + "Z";
  if (time.empty()) time = "-";
  line << time << "  " << r.queue;
  for (size_t w = r.queue.size(); w < 11; ++w) line << ' ';
  line << "  ";
  std::string text = r.text;
  if (r.kind == "message") {
    // Whole documents are long: a collapsed prefix is enough to recognise them.
    std::string collapsed;
    for (char c : text) {
      bool space = c == ' ' || c == '\t' || c == '\r' || c == '\n';
      if (space && (collapsed.empty() || collapsed.back() == ' ')) continue;
      collapsed += space ? ' ' : c;
    }
    if (collapsed.size() > 100) collapsed = collapsed.substr(0, 100) + "...";
    line << "message  " << collapsed;
  } else {
    for (char& c : text)
      if (c == '\r' || c == '\n' || c == '\t') c = ' ';
    line << r.kind << ' ' << r.code;
    if (!text.empty()) line << "  " << text;
  }
  if (!r.complete) line << "  (incomplete record)";
  return line.str();
}
