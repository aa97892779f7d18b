// Pre- and post-processing lists arrive as XML fragments inside a settings file. Whatever the
// fragment holds, reading it must leave bounded entries and a walk that goes on to the end.
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

void CheckHandler(CQVProcessingHandler& h) {
  const size_t op = CQVRegistryEntry::kOperationSize, text = CQVRegistryEntry::kTextSize;
  using ftcfuzz::Bounded;
  for (LLNode* n = h.GetRegistryHandler()->GetList().first(); n; n = n->next()) {
    auto* e = static_cast<CQVRegistryEntry*>(n->data());
    FUZZ_EXPECT(e != nullptr);
    for (const char* t : {e->GetOperation(), e->GetType()}) Bounded(t, op);
    for (const char* t : {e->GetKeyName(), e->GetValueName(), e->GetValue()}) Bounded(t, text);
  }
  for (CQVFileEntry* e : h.GetFileHandler()->GetEntries()) {
    Bounded(e->GetOperation(), op);
    for (const char* t : {e->GetSource(), e->GetDest()}) Bounded(t, text);
  }
  for (CQVExeEntry* e : h.GetExeHandler()->GetEntries()) {
    for (const char* t : {e->GetFile(), e->GetCmdLine(), e->GetStartIn()}) Bounded(t, text);
    FUZZ_EXPECT(e->GetWait() == 0 || e->GetWait() == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  bool fromRoot = in.Byte() & 1;
  std::string text = in.Rest();
  CPlixDOM dom;
  CPlixIterator it;
  if (dom.ReadDoc(text.c_str()) != 1 || !it.BindToDOM(&dom) || !it.ToRootElement() ||
      !it.BeginTraverseHere())
    return 0;
  std::vector<std::unique_ptr<CQVProcessingHandler>> handlers;
  size_t events = 0;
  for (int e = it.ContinueTraverse(); e; e = it.ContinueTraverse()) {
    FUZZ_EXPECT((e == 1 || e == 2) && it.GetElement() != nullptr);
    // Each element opens and closes once; a read that rewinds the walk would loop.
    FUZZ_EXPECT(++events <= 2 * text.size());
    const char* tag = it.GetElement()->GetTagName();
    bool processing =
        tag && (!std::strcmp(tag, "PreProcessing") || !std::strcmp(tag, "PostProcessing"));
    if (e == 1 && (processing || (fromRoot && events == 1))) {
      handlers.emplace_back(new CQVProcessingHandler());
      FUZZ_EXPECT(handlers.back()->LoadData(&it) == 0);
    }
  }
  FUZZ_EXPECT(it.ContinueTraverse() == 0);
  for (auto& h : handlers) CheckHandler(*h);
  return 0;
}
