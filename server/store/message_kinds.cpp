#include "message_kinds.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>

#include "text.h"

namespace ftcstore {
namespace {

bool Named(const pugi::xml_node& n, const char* name) {
  return std::strcmp(n.attribute("Name").value(), name) == 0;
}

pugi::xml_node Field(const pugi::xml_node& group, const char* name) {
  for (pugi::xml_node f : group.children("Field"))
    if (Named(f, name)) return f;
  return {};
}

// The plug-in fills the ready-to-work reason and the AutoDeploy value into its templates
// without escaping them, and both are the template's last field: parse the document without
// that text, then give the field its text as it was sent.
bool LoadRepaired(std::string_view body, pugi::xml_document* doc) {
  for (const char* open : {"<Field Name=\"Reason\">", "<Field Name=\"Settings Installed\">"}) {
    size_t from = body.find(open);
    size_t to = body.rfind("</Field>");
    if (from == std::string_view::npos || to == std::string_view::npos) continue;
    from += std::strlen(open);
    if (to < from) continue;
    std::string hollow(body.substr(0, from));
    hollow += body.substr(to);
    if (!doc->load_buffer(hollow.data(), hollow.size(), pugi::parse_default, pugi::encoding_utf8))
      continue;
    std::string name(open + std::strlen("<Field Name=\""));
    name.resize(name.size() - 2);
    pugi::xml_node field = doc->find_node([&](const pugi::xml_node& n) {
      return std::strcmp(n.name(), "Field") == 0 && name == n.attribute("Name").value();
    });
    if (field) field.text().set(std::string(body.substr(from, to - from)).c_str());
    return true;
  }
  return false;
}

}  // namespace

bool ClassifyMessage(MessageRow* row, std::string* why) {
  const std::string& body = row->body;
  pugi::xml_document doc;
  pugi::xml_parse_result parsed =
      doc.load_buffer(body.data(), body.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!parsed && !LoadRepaired(body, &doc)) {
    *why = std::string("not an XML document: ") + parsed.description() + " at byte " +
           std::to_string(parsed.offset);
    return false;
  }
  if (!doc.document_element()) {
    *why = "not an XML document: no root element";
    return false;
  }
  row->kind = "message";
  for (pugi::xml_node subsystem : doc.document_element().children("Subsystem")) {
    for (pugi::xml_node group : subsystem.children("Group")) {
      const char* keyName = nullptr;
      if (Named(group, "errorLogMsg")) {
        row->kind = "event";
        keyName = "msgNum";
        row->text = CleanText(Field(group, "optArgArrayElement").text().get());
        const char* system = Field(group, "system").text().get();
        char* end = nullptr;
        errno = 0;
        long long n = std::strtoll(system, &end, 10);
        if (*system && !*end && errno == 0) row->category = n;
      } else if (Named(group, "Ready-to-Work")) {
        row->kind = "state";
        keyName = "State";
        row->text = CleanText(Field(group, "Reason").text().get());
      } else if (Named(subsystem, "AutoDeploy")) {
        row->kind = "autodeploy";
        keyName = "Settings Installed";
      } else {
        continue;
      }
      pugi::xml_node key = Field(group, keyName);
      if (!key) {
        *why = row->kind + " without its " + keyName + " field";
        return false;
      }
      row->code = CleanText(key.text().get());
      return true;
    }
  }
  return true;
}

std::string InstalledBundles(std::string_view record) {
  pugi::xml_document doc;
  if (!doc.load_buffer(record.data(), record.size(), pugi::parse_default, pugi::encoding_utf8))
    return {};
  std::string out;
  for (pugi::xml_node subsystem : doc.document_element().children("Subsystem")) {
    if (!Named(subsystem, "Installed Bundles")) continue;
    for (pugi::xml_node group : subsystem.children("Group")) {
      if (!out.empty()) out += "; ";
      out += CleanText(group.attribute("Name").value());
      const char* version = Field(group, "Version").text().get();
      if (*version) out += " " + CleanText(version);
    }
  }
  return out;
}

}  // namespace ftcstore
