// Pre- and post-processing lists arrive as XML fragments inside a settings file. Whatever the
// fragment holds, reading it must leave bounded entries and a walk that goes on to the end of
// the document.
//
// Input: one byte (odd: also read from the root, whatever its tag), then the document.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/plix.h"
#include "processing/QVProcessingHandler.h"

namespace {

void Bounded(const char* text, size_t capacity) {
  FUZZ_EXPECT(text && strnlen(text, capacity) < capacity);
}

void CheckHandler(CQVProcessingHandler& h) {
  const size_t op = CQVRegistryEntry::kOperationSize, text = CQVRegistryEntry::kTextSize;
  for (LLNode* n = h.GetRegistryHandler()->GetList().first(); n; n = n->next()) {
    auto* e = static_cast<CQVRegistryEntry*>(n->data());
    FUZZ_EXPECT(e != nullptr);
    Bounded(e->GetOperation(), op);
    Bounded(e->GetKeyName(), text);
    Bounded(e->GetValueName(), text);
    Bounded(e->GetValue(), text);
    Bounded(e->GetType(), op);
  }
  for (CQVFileEntry* e : h.GetFileHandler()->GetEntries()) {
    Bounded(e->GetOperation(), op);
    Bounded(e->GetSource(), text);
    Bounded(e->GetDest(), text);
  }
  for (const char* s : h.GetFileHandler()->GetSaveEntries()) FUZZ_EXPECT(s != nullptr);
  for (CQVExeEntry* e : h.GetExeHandler()->GetEntries()) {
    Bounded(e->GetFile(), text);
    Bounded(e->GetCmdLine(), text);
    Bounded(e->GetStartIn(), text);
    FUZZ_EXPECT(e->GetWait() == 0 || e->GetWait() == 1);
  }
  for (const char* s : h.GetProcessNames()) FUZZ_EXPECT(s != nullptr);
}

bool IsProcessing(const char* tag) {
  return tag && (!std::strcmp(tag, "PreProcessing") || !std::strcmp(tag, "PostProcessing"));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  bool fromRoot = in.Byte() & 1;
  std::string text = in.Rest();
  CPlixDOM dom;
  if (dom.ReadDoc(text.c_str()) != 1) return 0;

  // Count the elements first: the walk with the reads in it must never see more.
  size_t elements = 0;
  {
    CPlixIterator it;
    if (!it.BindToDOM(&dom) || !it.ToRootElement() || !it.BeginTraverseHere()) return 0;
    for (int e = it.ContinueTraverse(); e; e = it.ContinueTraverse()) elements += e == 1;
  }

  std::vector<std::unique_ptr<CQVProcessingHandler>> handlers;
  CPlixIterator it;
  FUZZ_EXPECT(it.BindToDOM(&dom) && it.ToRootElement() && it.BeginTraverseHere());
  size_t events = 0;
  for (int e = it.ContinueTraverse(); e; e = it.ContinueTraverse()) {
    FUZZ_EXPECT(e == 1 || e == 2);
    FUZZ_EXPECT(++events <= 2 * elements);
    CPlixElement* element = it.GetElement();
    FUZZ_EXPECT(element != nullptr);
    if (e != 1) continue;
    if (IsProcessing(element->GetTagName()) || (fromRoot && events == 1)) {
      handlers.emplace_back(new CQVProcessingHandler());
      FUZZ_EXPECT(handlers.back()->LoadData(&it) == 0);
    }
  }
  FUZZ_EXPECT(it.ContinueTraverse() == 0);
  for (auto& h : handlers) CheckHandler(*h);
  return 0;
}
