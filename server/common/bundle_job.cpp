#include "bundle_job.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <pugixml.hpp>
#include <sstream>

#include "base/files.h"
#include "http.h"

namespace ftcserver {
namespace {

// Device records hold source and destination in 256-byte NUL-terminated fields.
constexpr size_t kMaxDevicePath = 255;

// Symbolic links are left out: the server refuses those that lead outside the folder, and a
// listing must not promise what it won't serve.
bool Scan(const std::string& dir, const std::string& rel, std::vector<BundleFile>* out,
          std::string* error) {
  std::string here = rel.empty() ? dir : dir + "/" + rel;
  DIR* d = opendir(here.c_str());
  if (!d) return *error = "cannot read " + here + ": " + std::strerror(errno), false;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    std::string childRel = rel.empty() ? n : rel + "/" + n;
    std::string full = dir + "/" + childRel;
    struct stat st {};
    if (lstat(full.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      if (!Scan(dir, childRel, out, error)) return false;
    } else if (S_ISREG(st.st_mode)) {
      auto crc = hostbase::FileCrc32(full);
      if (!crc) return *error = "cannot read " + full + ": " + std::strerror(errno), false;
      out->push_back({childRel, static_cast<unsigned long long>(st.st_size), *crc});
    }
  }
  return true;
}

}  // namespace

bool ScanBundle(const std::string& dir, std::vector<BundleFile>* out, std::string* error) {
  return Scan(dir, "", out, error);
}

std::string UrlPath(const std::string& rel) {
  static const char* kHex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : rel) {
    if (std::isalnum(c) || std::strchr("/-._~!$&'()*+=@", c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string DevicePath(const std::string& prefix, const std::string& rel) {
  std::string out = prefix;
  if (!out.empty() && out.back() != '\\') out.push_back('\\');
  for (char c : rel) out.push_back(c == '/' ? '\\' : c);
  return out;
}

// A name the list file or a device record cannot carry is an error, not a silent truncation.
std::string CheckRepresentable(const BundleFile& f, const std::string& dest, bool forList) {
  if (f.rel.find_first_of(forList ? ",\r\n" : "\r\n") != std::string::npos)
    return f.rel + ": name contains a character the list file uses as a separator";
  if (UrlPath(f.rel).size() > kMaxDevicePath)
    return f.rel + ": source longer than the device's 255 characters";
  if (dest.size() > kMaxDevicePath)
    return dest + ": destination longer than the device's 255 characters";
  return {};
}

void WarnIfUnchecked(const BundleFile& f, const char* tool) {
  if (f.crc == 0)
    std::fprintf(stderr,
                 "%s: warning: %s has CRC 0 (%s); devices neither check nor fetch such a file\n",
                 tool, f.rel.c_str(), f.size == 0 ? "empty" : "by chance");
}

std::optional<ServerUrl> ParseServerUrl(const std::string& url) {
  if (url.size() < 8 || !EqualsIgnoreCase(url.substr(0, 7), "http://")) return std::nullopt;
  std::string rest = url.substr(7);
  size_t slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string path = slash == std::string::npos ? "" : rest.substr(slash);
  while (!path.empty() && path.back() == '/') path.pop_back();
  size_t colon = authority.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  auto port = ParseDecimal(authority.substr(colon + 1));
  if (!port || *port == 0 || *port > 65535) return std::nullopt;
  ServerUrl s;
  s.host = authority.substr(0, colon);
  s.port = static_cast<unsigned>(*port);
  s.base = "http://" + authority + path;
  return s;
}

bool WriteBundleJob(const BundleJob& a, const char* tool, std::string* xml, std::string* error) {
  auto server = ParseServerUrl(a.server);
  if (!server) return *error = "the server must be http://HOST:PORT with an explicit port", false;
  std::string listName = a.list.empty() ? kDefaultListName : a.list;
  std::vector<BundleFile> files;
  if (!ScanBundle(a.dir, &files, error)) return false;

  std::string bundle = a.bundle;
  if (bundle.empty()) {
    std::string d = a.dir;
    while (d.size() > 1 && d.back() == '/') d.pop_back();
    bundle = d.substr(d.rfind('/') == std::string::npos ? 0 : d.rfind('/') + 1);
  }

  pugi::xml_document doc;
  pugi::xml_node devInfo = doc.append_child("DevInfo");
  devInfo.append_attribute("Action") = "Set";
  auto named = [](pugi::xml_node parent, const char* tag, const char* name) {
    pugi::xml_node node = parent.append_child(tag);
    node.append_attribute("Name") = name;
    return node;
  };
  auto field = [&named](pugi::xml_node group, const char* name, const std::string& value) {
    // A text child even when empty, so the field is written with its closing tag.
    named(group, "Field", name).append_child(pugi::node_pcdata).set_value(value.c_str());
  };
  pugi::xml_node subsystem = named(devInfo, "Subsystem", "FileTransferConfiglet");
  pugi::xml_node http = named(subsystem, "Group", "HTTPServer");
  field(http, "IPAddress", server->host);
  field(http, "HTTPPort", std::to_string(server->port));
  field(http, "BaseURL", server->base);
  if (!a.list.empty()) {
    auto it = std::find_if(files.begin(), files.end(),
                           [&](const BundleFile& f) { return f.rel == listName; });
    if (it == files.end())
      return *error = listName + " not found in " + a.dir + " (run list first)", false;
    std::string dest = a.listDest.empty() ? DevicePath(a.dest, listName) : a.listDest;
    if (std::string e = CheckRepresentable(*it, dest, false); !e.empty()) return *error = e, false;
    pugi::xml_node list = named(subsystem, "Group", "FileList");
    field(list, "Source", UrlPath(it->rel));
    field(list, "Dest", dest);
    field(list, "CRC", std::to_string(it->crc));
  } else {
    // With a list file the device takes its downloads from the list; naming them here as well
    // would validate every file twice.
    pugi::xml_node download = named(subsystem, "Group", "Download");
    for (const BundleFile& f : files) {
      if (f.rel == listName) continue;
      std::string dest = DevicePath(a.dest, f.rel);
      if (std::string e = CheckRepresentable(f, dest, false); !e.empty()) return *error = e, false;
      WarnIfUnchecked(f, tool);
      pugi::xml_node file = named(download, "Group", "File");
      field(file, "Source", UrlPath(f.rel));
      field(file, "Dest", dest);
      field(file, "CRC", std::to_string(f.crc));
      field(file, "MCTMask", a.mask);
    }
  }
  if (!a.multicast.empty())
    field(named(subsystem, "Group", "MulticastClient"), "Parameters", a.multicast);
  field(subsystem, "BundleName", bundle);
  if (!a.version.empty()) field(subsystem, "Version", a.version);
  if (a.reboot) field(subsystem, "Reboot", "True");
  named(subsystem, "Group", "Upgrade");

  std::ostringstream x;
  doc.save(x, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
  *xml = x.str();
  return true;
}

}  // namespace ftcserver
