#include "processing/LList.h"

#include <cstdlib>
#include <new>

namespace {
void ReleaseWithFree(void* item) {
  std::free(item);
}
}  // namespace

LList::LList() : m_pHead(nullptr), m_pRelease(ReleaseWithFree) {}

LList::LList(void (*release)(void*)) : m_pHead(nullptr), m_pRelease(release) {}

LList::~LList() {
  LLNode* node = m_pHead;
  while (node) {
    LLNode* next = node->next();
    if (m_pRelease && node->data()) m_pRelease(node->data());
    delete node;
    node = next;
  }
}

int LList::additem(void* item) {
  LLNode* node = new (std::nothrow) LLNode(item);
  if (!node) return 0;
  if (!m_pHead) {
    m_pHead = node;
    return 1;
  }
  LLNode* tail = m_pHead;
  while (tail->next()) tail = tail->next();
  tail->setnext(node);
  return 1;
}

int LList::deleteitem(void* item) {
  LLNode* previous = nullptr;
  for (LLNode* node = m_pHead; node; previous = node, node = node->next()) {
    if (node->data() != item) continue;
    if (previous)
      previous->setnext(node->next());
    else
      m_pHead = node->next();
    delete node;
    return 1;
  }
  return 0;
}
