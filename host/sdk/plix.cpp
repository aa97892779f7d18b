// The XML document classes over pugixml. Elements are handles the document owns, one per node,
// so a pointer handed out stays valid until its node is deleted or the document is re-read.
// Iterators bound to a document are told about deletions so they never walk a freed node.

#include "platform/plix.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <pugixml.hpp>
#include <set>
#include <string>
#include <unordered_map>

#include "sdk_internal.h"

namespace {

using Node = pugi::xml_node;
using NodeRef = pugi::xml_node_struct*;

enum Event { kNone = 0, kStart = 1, kEnd = 2 };

Node ToNode(void* p) {
  return Node(static_cast<NodeRef>(p));
}

Node FirstElementChild(Node n) {
  for (Node c = n.first_child(); c; c = c.next_sibling())
    if (c.type() == pugi::node_element) return c;
  return Node();
}

Node NextElementSibling(Node n) {
  for (Node c = n.next_sibling(); c; c = c.next_sibling())
    if (c.type() == pugi::node_element) return c;
  return Node();
}

bool IsWithin(Node n, Node ancestor) {
  for (; n; n = n.parent())
    if (n == ancestor) return true;
  return false;
}

bool IsText(Node n) {
  return n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata;
}

// pugixml takes fragments; a document has exactly one element and no text at its top.
bool IsSingleRooted(const pugi::xml_document& doc) {
  int elements = 0;
  for (Node c = doc.first_child(); c; c = c.next_sibling()) {
    if (c.type() == pugi::node_element) ++elements;
    if (IsText(c)) return false;
  }
  return elements == 1;
}

// "&#0;" or "&#x0;": not a character XML allows, and decoded it would cut its text or attribute
// short, so that what is written back loses the rest.
bool HasNulReference(const char* text) {
  for (const char* p = std::strstr(text, "&#"); p; p = std::strstr(p + 2, "&#")) {
    const char* d = p + 2;
    if (*d == 'x') ++d;
    const char* digits = d;
    while (*d == '0') ++d;
    if (d > digits && *d == ';') return true;
  }
  return false;
}

size_t MaxDepth(Node top) {
  size_t depth = 1, deepest = 1;
  for (Node n = top.first_child(); n && n != top;) {
    if (n.first_child()) {
      n = n.first_child();
      if (++depth > deepest) deepest = depth;
      continue;
    }
    while (n != top && !n.next_sibling()) {
      n = n.parent();
      --depth;
    }
    if (n != top) n = n.next_sibling();
  }
  return deepest;
}

// pugixml frees a subtree recursively; leaves first keeps a deep one off the stack.
void RemoveSubtree(Node top) {
  Node n = top;
  for (;;) {
    if (Node child = n.first_child()) {
      n = child;
      continue;
    }
    if (n == top) break;
    Node parent = n.parent();
    parent.remove_child(n);
    n = parent;
  }
  top.parent().remove_child(top);
}

// A position of a traversal: an element and the event reported (or to report) for it.
struct Position {
  NodeRef node = nullptr;
  int event = kNone;
};

}  // namespace

struct CPlixIterator::Impl {
  CPlixDOM* dom = nullptr;
  Position current;       // the last event; its node is what GetElement returns
  NodeRef top = nullptr;  // null when no traversal is under way
  bool pending = false;   // next event already decided (set by BeginTraverseHere or a deletion)
  Position next;          // node null with pending set: the traversal is over
  bool finished = false;

  void Reset() {
    current = Position();
    top = nullptr;
    pending = false;
    next = Position();
    finished = false;
  }

  // Where the traversal goes once `gone` (which holds the current or next position) is removed:
  // on as if `gone` had just ended.
  Position After(Node gone) const {
    if (!top || IsWithin(Node(top), gone)) return Position();
    if (Node sibling = NextElementSibling(gone)) return Position{sibling.internal_object(), kStart};
    return Position{gone.parent().internal_object(), kEnd};
  }

  void BeforeDelete(Node gone) {
    if (top && IsWithin(Node(top), gone)) {
      // The traversal's top is going: the traversal is over.
      current = Position();
      top = nullptr;
      pending = false;
      finished = true;
      return;
    }
    if (pending && next.node && IsWithin(Node(next.node), gone)) next = After(gone);
    if (current.node && IsWithin(Node(current.node), gone)) {
      if (!pending && top && !finished) {
        pending = true;
        next = After(gone);
      }
      current = Position();
    }
  }
};

struct CPlixDOM::Impl {
  std::unique_ptr<pugi::xml_document> doc{new pugi::xml_document};
  struct Handle {
    std::unique_ptr<CPlixElement> element;
    std::string data;  // GetData's text, kept so the pointer it returns stays valid
  };
  std::unordered_map<NodeRef, Handle> handles;
  std::set<CPlixIterator::Impl*> iterators;
  std::string writeScratch;

  Handle* HandleFor(CPlixDOM* dom, Node node) {
    if (!node || node.type() != pugi::node_element) return nullptr;
    auto it = handles.find(node.internal_object());
    if (it == handles.end()) {
      Handle h;
      h.element.reset(new CPlixElement(dom, node.internal_object()));
      it = handles.emplace(node.internal_object(), std::move(h)).first;
    }
    return &it->second;
  }

  CPlixElement* ElementFor(CPlixDOM* dom, Node node) {
    Handle* h = HandleFor(dom, node);
    return h ? h->element.get() : nullptr;
  }

  // Iterative: a hostile document may nest deeper than the stack allows.
  void ForgetSubtree(Node top) {
    handles.erase(top.internal_object());
    for (Node n = top.first_child(); n && n != top;) {
      handles.erase(n.internal_object());
      if (n.first_child()) {
        n = n.first_child();
        continue;
      }
      while (n != top && !n.next_sibling()) n = n.parent();
      if (n != top) n = n.next_sibling();
    }
  }

  // Every handle and traversal refers to the old document: drop them.
  void Replace(std::unique_ptr<pugi::xml_document> fresh) {
    for (CPlixIterator::Impl* it : iterators) it->Reset();
    handles.clear();
    doc = std::move(fresh);
  }

  Node Root() const { return doc->document_element(); }
};

// ---- CPlixElement ---------------------------------------------------------------------------

const char* CPlixElement::GetTagName() const {
  if (!m_pNode) return "";
  return ToNode(m_pNode).name();
}

const char* CPlixElement::GetAttribute(const char* name) const {
  if (!m_pNode || !name) return nullptr;
  pugi::xml_attribute a = ToNode(m_pNode).attribute(name);
  return a ? a.value() : nullptr;
}

const char* CPlixElement::GetData() const {
  return SdkNoThrow<const char*>("", [&]() -> const char* {
    if (!m_pNode || !m_pDom) return "";
    Node node = ToNode(m_pNode);
    CPlixDOM::Impl::Handle* h = m_pDom->m_pImpl->HandleFor(m_pDom, node);
    if (!h) return "";
    h->data.clear();
    for (Node c = node.first_child(); c; c = c.next_sibling())
      if (IsText(c)) h->data += c.value();
    return h->data.c_str();
  });
}

int CPlixElement::SetAttribute(const char* name, const char* value) {
  if (!m_pNode || !name || !*name) return 0;
  Node node = ToNode(m_pNode);
  pugi::xml_attribute a = node.attribute(name);
  if (!a) a = node.append_attribute(name);
  return a && a.set_value(value ? value : "") ? 1 : 0;
}

int CPlixElement::SetData(const char* text) {
  if (!m_pNode) return 0;
  Node node = ToNode(m_pNode);
  for (Node c = node.first_child(); c;) {
    Node following = c.next_sibling();
    if (IsText(c)) node.remove_child(c);
    c = following;
  }
  if (!text || !*text) return 1;
  Node t = node.prepend_child(pugi::node_pcdata);
  return t && t.set_value(text) ? 1 : 0;
}

CPlixElement* CPlixElement::InsertChild(const char* tag) {
  return SdkNoThrow<CPlixElement*>(nullptr, [&]() -> CPlixElement* {
    if (!m_pNode || !tag || !*tag) return nullptr;
    Node child = ToNode(m_pNode).append_child(tag);
    return child ? m_pDom->m_pImpl->ElementFor(m_pDom, child) : nullptr;
  });
}

CPlixElement* CPlixElement::InsertNextSibling(const char* tag) {
  return SdkNoThrow<CPlixElement*>(nullptr, [&]() -> CPlixElement* {
    if (!m_pNode || !tag || !*tag) return nullptr;
    Node node = ToNode(m_pNode);
    Node parent = node.parent();
    if (!parent || parent.type() != pugi::node_element) return nullptr;
    Node sibling = parent.insert_child_after(tag, node);
    return sibling ? m_pDom->m_pImpl->ElementFor(m_pDom, sibling) : nullptr;
  });
}

int CPlixElement::Delete() {
  if (!m_pNode || !m_pDom) return 0;
  CPlixDOM::Impl* dom = m_pDom->m_pImpl;
  Node node = ToNode(m_pNode);
  Node parent = node.parent();
  if (!parent) return 0;
  for (CPlixIterator::Impl* it : dom->iterators) it->BeforeDelete(node);
  // Forgetting the subtree destroys this object: nothing of it may be touched afterwards.
  dom->ForgetSubtree(node);
  RemoveSubtree(node);
  return 1;
}

// ---- CPlixDOM -------------------------------------------------------------------------------

CPlixDOM::CPlixDOM() : m_pImpl(new Impl) {}

CPlixDOM::CPlixDOM(const char* rootTag) : m_pImpl(new Impl) {
  Node decl = m_pImpl->doc->append_child(pugi::node_declaration);
  decl.append_attribute("version") = "1.0";
  decl.append_attribute("encoding") = "UTF-8";
  if (rootTag && *rootTag) m_pImpl->doc->append_child(rootTag);
}

CPlixDOM::~CPlixDOM() {
  for (CPlixIterator::Impl* it : m_pImpl->iterators) {
    it->Reset();
    it->dom = nullptr;
  }
  delete m_pImpl;
}

int CPlixDOM::ReadDoc(const char* text) {
  return SdkNoThrow<int>(0, [&]() -> int {
    std::unique_ptr<pugi::xml_document> fresh(new (std::nothrow) pugi::xml_document);
    if (!fresh) return 0;
    bool ok = false;
    if (text && !HasNulReference(text)) {
      pugi::xml_parse_result r =
          fresh->load_string(text, pugi::parse_default | pugi::parse_declaration);
      ok = r && IsSingleRooted(*fresh);
    }
    if (!ok) fresh->reset();
    m_pImpl->Replace(std::move(fresh));
    return ok ? 1 : 0;
  });
}

namespace {
struct StringWriter : pugi::xml_writer {
  std::string* out;
  explicit StringWriter(std::string* o) : out(o) {}
  void write(const void* data, size_t size) override {
    out->append(static_cast<const char*>(data), size);
  }
};
}  // namespace

int CPlixDOM::WriteDoc(char** text) {
  return SdkNoThrow<int>(0, [&]() -> int {
    if (!text) return 0;
    *text = nullptr;
    if (!m_pImpl->Root()) return 0;
    std::string& out = m_pImpl->writeScratch;
    out.clear();
    StringWriter writer(&out);
    // Indentation grows with the square of the nesting: a deep document is written unindented.
    unsigned flags = pugi::format_no_declaration;
    if (MaxDepth(m_pImpl->Root()) <= 64) flags |= pugi::format_indent;
    m_pImpl->doc->save(writer, "  ", flags, pugi::encoding_utf8);
    char* block = static_cast<char*>(std::malloc(out.size() + 1));
    if (!block) return 0;
    std::memcpy(block, out.data(), out.size());
    block[out.size()] = '\0';
    *text = block;
    out.clear();
    out.shrink_to_fit();
    return 1;
  });
}

CPlixElement* CPlixDOM::GetRootElement() {
  return SdkNoThrow<CPlixElement*>(
      nullptr, [&]() -> CPlixElement* { return m_pImpl->ElementFor(this, m_pImpl->Root()); });
}

// ---- CPlixIterator --------------------------------------------------------------------------

CPlixIterator::CPlixIterator() : m_pImpl(new Impl) {}

CPlixIterator::~CPlixIterator() {
  if (m_pImpl->dom) m_pImpl->dom->m_pImpl->iterators.erase(m_pImpl);
  delete m_pImpl;
}

int CPlixIterator::BindToDOM(CPlixDOM* dom) {
  return SdkNoThrow<int>(0, [&]() -> int {
    if (m_pImpl->dom) m_pImpl->dom->m_pImpl->iterators.erase(m_pImpl);
    m_pImpl->Reset();
    m_pImpl->dom = nullptr;
    if (!dom) return 0;
    // Registered before it is bound: an iterator that is never told of deletions must not walk.
    dom->m_pImpl->iterators.insert(m_pImpl);
    m_pImpl->dom = dom;
    return 1;
  });
}

int CPlixIterator::ToRootElement() {
  if (!m_pImpl->dom) return 0;
  m_pImpl->Reset();
  Node root = m_pImpl->dom->m_pImpl->Root();
  if (!root) return 0;
  m_pImpl->current = Position{root.internal_object(), kNone};
  return 1;
}

int CPlixIterator::BeginTraverseHere() {
  Impl& s = *m_pImpl;
  if (!s.dom || !s.current.node) return 0;
  s.top = s.current.node;
  s.pending = true;
  s.next = Position{s.top, kStart};
  s.finished = false;
  return 1;
}

int CPlixIterator::ContinueTraverse() {
  Impl& s = *m_pImpl;
  if (!s.dom || s.finished) return 0;
  // Without BeginTraverseHere the walk covers the current element.
  if (!s.top && !s.pending && s.current.node && s.current.event == kNone) BeginTraverseHere();
  Position next;
  if (s.pending) {
    next = s.next;
    s.pending = false;
  } else if (s.top && s.current.node) {
    Node cur(s.current.node);
    if (s.current.event == kStart) {
      Node child = FirstElementChild(cur);
      next =
          child ? Position{child.internal_object(), kStart} : Position{cur.internal_object(), kEnd};
    } else if (cur == Node(s.top)) {
      next = Position();
    } else if (Node sibling = NextElementSibling(cur)) {
      next = Position{sibling.internal_object(), kStart};
    } else {
      next = Position{cur.parent().internal_object(), kEnd};
    }
  }
  if (!next.node) {
    s.finished = true;
    s.top = nullptr;
    return 0;
  }
  s.current = next;
  return next.event;
}

CPlixElement* CPlixIterator::GetElement() {
  return SdkNoThrow<CPlixElement*>(nullptr, [&]() -> CPlixElement* {
    if (!m_pImpl->dom || !m_pImpl->current.node) return nullptr;
    return m_pImpl->dom->m_pImpl->ElementFor(m_pImpl->dom, Node(m_pImpl->current.node));
  });
}
