// The host's XML document library.
#pragma once

#include "platform/wintypes.h"

class CPlixDOM;

// A node of a CPlixDOM. Elements are owned by their document and stay valid until deleted or
// until the document is destroyed or re-read.
class WINUX_API CPlixElement {
 public:
  const char* GetTagName() const;
  // Null when the attribute is absent.
  const char* GetAttribute(const char* name) const;
  // The element's own text, "" when it has none.
  const char* GetData() const;
  int SetAttribute(const char* name, const char* value);
  int SetData(const char* text);
  // Appends a child element; null on failure.
  CPlixElement* InsertChild(const char* tag);
  // Inserts an element right after this one; null on failure or at the root.
  CPlixElement* InsertNextSibling(const char* tag);
  // Removes this element and its subtree; this object is invalid afterwards. 1 on success.
  int Delete();

 private:
  friend class CPlixDOM;
  friend class CPlixIterator;
  CPlixElement(CPlixDOM* dom, void* node) : m_pDom(dom), m_pNode(node) {}
  CPlixDOM* m_pDom;
  void* m_pNode;
};

class WINUX_API CPlixDOM {
 public:
  CPlixDOM();
  // A new document whose root element has this tag.
  explicit CPlixDOM(const char* rootTag);
  ~CPlixDOM();
  CPlixDOM(const CPlixDOM&) = delete;
  CPlixDOM& operator=(const CPlixDOM&) = delete;

  // Parses a NUL-terminated document, replacing the current one. 1 on success.
  int ReadDoc(const char* text);
  // Writes the document as text into a new block (free with LocalFree). 1 on success.
  int WriteDoc(char** text);
  // Null when the document is empty.
  CPlixElement* GetRootElement();

  struct Impl;

 private:
  friend class CPlixElement;
  friend class CPlixIterator;
  Impl* m_pImpl;
};

// Walks a document. BeginTraverseHere makes the current element the traversal's top;
// ContinueTraverse then yields, in document order, 1 at the start of each element (the top
// first), 2 at its end, and 0 once the top has ended.
class WINUX_API CPlixIterator {
 public:
  CPlixIterator();
  ~CPlixIterator();
  CPlixIterator(const CPlixIterator&) = delete;
  CPlixIterator& operator=(const CPlixIterator&) = delete;

  int BindToDOM(CPlixDOM* dom);
  // 1 when the document has a root element.
  int ToRootElement();
  int BeginTraverseHere();
  int ContinueTraverse();
  // The element of the last event; null before the first.
  CPlixElement* GetElement();

  struct Impl;

 private:
  Impl* m_pImpl;
};
