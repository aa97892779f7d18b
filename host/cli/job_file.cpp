#include "job_file.h"

#include <strings.h>

#include <algorithm>
#include <fstream>
#include <pugixml.hpp>
#include <sstream>

namespace ftchost {

namespace {

struct Position {
  int line, column;
};

Position PositionOf(const std::string& text, ptrdiff_t offset) {
  Position p{1, 1};
  if (offset < 0) return p;
  for (ptrdiff_t i = 0; i < offset && i < static_cast<ptrdiff_t>(text.size()); ++i) {
    if (text[i] == '\n') {
      ++p.line;
      p.column = 1;
    } else {
      ++p.column;
    }
  }
  return p;
}

bool Is(const pugi::xml_node& n, const char* name) {
  return strcasecmp(n.name(), name) == 0;
}

// Far beyond any real job (the plug-in's groups nest a few levels).
const int kMaxDepth = 1000;

class Walker {
 public:
  Walker(const std::string& text, JobFile* job) : m_text(text), m_job(job) {}

  bool Subsystem(const pugi::xml_node& node, std::string* error) { return Group(node, error); }

  bool Fail(const pugi::xml_node& node, const std::string& what, std::string* error) {
    // offset_debug points at the element name; report its "<".
    Position p = PositionOf(m_text, node.offset_debug() - 1);
    std::ostringstream s;
    s << "line " << p.line << ", column " << p.column << ": " << what;
    *error = s.str();
    return false;
  }

 private:
  // Line starts are found once: scanning from the top for every element made a job file of many
  // thousand fields take quadratic time.
  int Line(const pugi::xml_node& node) {
    if (m_lineStarts.empty()) {
      m_lineStarts.push_back(0);
      for (size_t i = 0; i < m_text.size(); ++i)
        if (m_text[i] == '\n') m_lineStarts.push_back(i + 1);
    }
    ptrdiff_t offset = node.offset_debug();
    if (offset < 0) return 1;
    return static_cast<int>(
        std::upper_bound(m_lineStarts.begin(), m_lineStarts.end(), static_cast<size_t>(offset)) -
        m_lineStarts.begin());
  }

  bool Group(const pugi::xml_node& node, std::string* error, bool inDownload = false) {
    pugi::xml_attribute name = node.attribute("Name");
    if (!name) return Fail(node, std::string("<") + node.name() + "> has no Name", error);
    std::string group = name.value();
    m_job->calls.push_back({JobCall::kBeginGroup, group, "", Line(node)});
    if (strcasecmp(group.c_str(), "Upgrade") == 0) m_job->hasUpgrade = true;
    bool download = strcasecmp(group.c_str(), "Download") == 0;
    if (strcasecmp(group.c_str(), "FileList") == 0) {
      m_job->hasListFile = true;
      m_job->listFile = {};
      m_file = &m_job->listFile;
    } else if (inDownload && strcasecmp(group.c_str(), "File") == 0) {
      m_job->files.emplace_back();
      m_file = &m_job->files.back();
    }
    for (pugi::xml_node child : node.children()) {
      if (child.type() != pugi::node_element) continue;
      if (Is(child, "Group")) {
        // Each level is a stack frame: a hostile file could nest deep enough to overflow it.
        if (++m_depth > kMaxDepth) return Fail(child, "groups nested too deeply", error);
        bool ok = Group(child, error, download);
        --m_depth;
        if (!ok) return false;
      } else if (Is(child, "Field")) {
        pugi::xml_attribute field = child.attribute("Name");
        if (!field) return Fail(child, "<Field> has no Name", error);
        std::string value = child.text().get();
        m_job->calls.push_back({JobCall::kSetField, field.value(), value, Line(child)});
        Remember(field.value(), value);
      } else {
        return Fail(child, std::string("unexpected element <") + child.name() + ">", error);
      }
    }
    m_file = nullptr;
    m_job->calls.push_back({JobCall::kEndGroup, group, "", Line(node)});
    return true;
  }

  void Remember(const char* field, const std::string& value) {
    if (!m_file) return;
    if (strcasecmp(field, "Source") == 0) m_file->source = value;
    if (strcasecmp(field, "Dest") == 0) m_file->dest = value;
    if (strcasecmp(field, "CRC") == 0) m_file->crc = value;
    if (strcasecmp(field, "MCTMask") == 0) m_file->masks = value;
  }

  const std::string& m_text;
  JobFile* m_job;
  JobFile::File* m_file = nullptr;
  std::vector<size_t> m_lineStarts;
  int m_depth = 0;
};

}  // namespace

bool ParseJob(const std::string& text, JobFile* job, std::string* error) {
  *job = {};
  pugi::xml_document doc;
  pugi::xml_parse_result parsed = doc.load_buffer(text.data(), text.size());
  if (!parsed) {
    Position p = PositionOf(text, parsed.offset);
    std::ostringstream s;
    s << "line " << p.line << ", column " << p.column << ": " << parsed.description();
    *error = s.str();
    return false;
  }
  Walker walker(text, job);
  pugi::xml_node root = doc.document_element();
  if (!Is(root, "DevInfo"))
    return walker.Fail(root, "the document element must be <DevInfo>", error);
  int subsystems = 0;
  for (pugi::xml_node child : root.children()) {
    if (child.type() != pugi::node_element) continue;
    if (!Is(child, "Subsystem"))
      return walker.Fail(child, std::string("unexpected element <") + child.name() + ">", error);
    if (!walker.Subsystem(child, error)) return false;
    ++subsystems;
  }
  if (subsystems == 0) return walker.Fail(root, "no <Subsystem> in <DevInfo>", error);
  return true;
}

bool LoadJob(const std::string& path, JobFile* job, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path;
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (!ParseJob(text.str(), job, error)) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

}  // namespace ftchost
