// The host's XML document reads settings files, processing fragments and the installed-bundle
// record, and writes the latter back. Any text must read without harm; a document it wrote must
// read back and write out the same; values set on elements must survive the trip; and a walk
// must stay sound while the elements under it are edited or deleted.
//
// Input: the document, a NUL, then edits: an operation byte, an element number, and a value
// ending at byte 0x01.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/plix.h"
#include "platform/winux.h"

namespace {

std::string Write(CPlixDOM& dom) {
  char* text = nullptr;
  if (dom.WriteDoc(&text) != 1 || !text) return "";
  std::string out(text);
  LocalFree(text);
  return out;
}

// Elements in document order, through a full walk whose events must nest properly.
std::vector<CPlixElement*> Walk(CPlixDOM& dom) {
  std::vector<CPlixElement*> order, open;
  CPlixIterator it;
  if (it.BindToDOM(&dom) != 1 || it.ToRootElement() != 1 || it.BeginTraverseHere() != 1)
    return order;
  for (int event = it.ContinueTraverse(); event != 0; event = it.ContinueTraverse()) {
    CPlixElement* e = it.GetElement();
    FUZZ_EXPECT(e && e->GetTagName() && e->GetData());
    if (event == 1) {
      order.push_back(e);
      open.push_back(e);
    } else {
      FUZZ_EXPECT(event == 2 && !open.empty() && open.back() == e);
      open.pop_back();
    }
  }
  FUZZ_EXPECT(open.empty());
  FUZZ_EXPECT(!order.empty() && order.front() == dom.GetRootElement());
  return order;
}

// Text keeps every visible character; a reader may normalise line ends and drop blank text
// between elements.
std::string Visible(const char* text) {
  std::string out;
  for (const char* p = text; *p; ++p)
    if (*p != ' ' && *p != '\t' && *p != '\r' && *p != '\n') out += *p;
  return out;
}

const char* const kTags[] = {"Set", "File", "Process", "Bundle", "x"};
const char* const kNames[] = {"Name", "Value", "KeyName", "Action", "a", "x"};

// Same elements in the same order, with the same attributes and text.
void ExpectSame(CPlixDOM& written, CPlixDOM& read) {
  std::vector<CPlixElement*> before = Walk(written);
  std::vector<CPlixElement*> after = Walk(read);
  FUZZ_EXPECT(before.size() == after.size());
  for (size_t i = 0; i < before.size(); ++i) {
    FUZZ_EXPECT(std::strcmp(before[i]->GetTagName(), after[i]->GetTagName()) == 0);
    for (const char* name : kNames) {
      const char* a = before[i]->GetAttribute(name);
      const char* b = after[i]->GetAttribute(name);
      FUZZ_EXPECT((a == nullptr) == (b == nullptr));
      if (a) FUZZ_EXPECT(std::strcmp(a, b) == 0);
    }
    FUZZ_EXPECT(Visible(before[i]->GetData()) == Visible(after[i]->GetData()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  std::string text = in.Until(0);
  CPlixDOM dom;
  if (dom.ReadDoc(text.c_str()) != 1) {
    FUZZ_EXPECT(dom.GetRootElement() == nullptr);
    return 0;
  }
  std::string first = Write(dom);
  FUZZ_EXPECT(!first.empty());
  CPlixDOM copy;
  FUZZ_EXPECT(copy.ReadDoc(first.c_str()) == 1);
  ExpectSame(dom, copy);
  // One trip may normalise line ends and drop blank text; after that the text is stable.
  std::string second = Write(copy);
  CPlixDOM again;
  FUZZ_EXPECT(again.ReadDoc(second.c_str()) == 1);
  FUZZ_EXPECT(Write(again) == second);

  // Edits while a walk is under way over the same document.
  CPlixIterator walker;
  FUZZ_EXPECT(walker.BindToDOM(&dom) == 1 && walker.ToRootElement() == 1 &&
              walker.BeginTraverseHere() == 1);
  for (int steps = 0; !in.Empty() && steps < 64; ++steps) {
    uint8_t op = in.Byte();
    std::vector<CPlixElement*> elements = Walk(dom);
    CPlixElement* e = elements[in.Below(elements.size())];
    std::string value = in.Until(1);
    switch (op % 6) {
      case 0:
        e->SetAttribute(kNames[op / 6 % 6], value.c_str());
        break;
      case 1:
        e->SetData(value.c_str());
        break;
      case 2:
        e->InsertChild(kTags[op / 6 % 5]);
        break;
      case 3:
        e->InsertNextSibling(kTags[op / 6 % 5]);
        break;
      case 4:
        if (e != dom.GetRootElement()) e->Delete();
        break;
      case 5:
        walker.ContinueTraverse();
        break;
    }
    if (CPlixElement* at = walker.GetElement()) FUZZ_EXPECT(at->GetTagName() != nullptr);
  }
  while (walker.ContinueTraverse() != 0) FUZZ_EXPECT(walker.GetElement() != nullptr);

  // Whatever was set reads back from the written text.
  std::string edited = Write(dom);
  CPlixDOM reread;
  FUZZ_EXPECT(reread.ReadDoc(edited.c_str()) == 1);
  ExpectSame(dom, reread);
  return 0;
}
