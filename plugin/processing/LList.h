// A minimal singly linked list of untyped pointers, in insertion order.
#pragma once

class LLNode {
 public:
  explicit LLNode(void* data) : m_pData(data), m_pNext(nullptr) {}
  void* data() const { return m_pData; }
  LLNode* next() const { return m_pNext; }
  void setnext(LLNode* node) { m_pNext = node; }

 private:
  void* m_pData;
  LLNode* m_pNext;
};

class LList {
 public:
  // Items still listed at destruction are released with free().
  LList();
  // Items still listed at destruction are handed to release (not called when null).
  explicit LList(void (*release)(void*));
  ~LList();
  LList(const LList&) = delete;
  LList& operator=(const LList&) = delete;

  LLNode* first() const { return m_pHead; }
  // Appends at the tail. 0 when the node could not be allocated.
  int additem(void* item);
  // Unlinks the first node holding item (pointer identity); the item itself is left alone.
  // 1 when found.
  int deleteitem(void* item);

 private:
  LLNode* m_pHead;
  void (*m_pRelease)(void*);
};
