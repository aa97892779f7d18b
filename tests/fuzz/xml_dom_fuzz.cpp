// The host's XML document reads settings files, processing fragments and the installed-bundle
// record, and writes the latter back. Any text must read without harm; a document it wrote reads
// back the same, before and after edits; and a walk stays sound while the elements under it are
// edited or deleted.
//
// Input: the document, a NUL, then edits: an operation byte, an element number, and a value
// ending at byte 0x01.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/plix.h"
#include "platform/winux.h"

namespace {

std::string Write(CPlixDOM& dom) {
  char* text = nullptr;
  FUZZ_EXPECT(dom.WriteDoc(&text) == 1 && text);
  std::string out(text);
  LocalFree(text);
  return out;
}

// Elements in document order, through a full walk whose events must nest properly.
std::vector<CPlixElement*> Walk(CPlixDOM& dom) {
  std::vector<CPlixElement*> order, open;
  CPlixIterator it;
  FUZZ_EXPECT(it.BindToDOM(&dom) == 1 && it.ToRootElement() == 1 && it.BeginTraverseHere() == 1);
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
  FUZZ_EXPECT(open.empty() && !order.empty() && order.front() == dom.GetRootElement());
  return order;
}

// Blanks aside: one trip may normalise line ends and drop blank text, so that an element holding
// only blanks comes back empty ("<a>\t</a>" as "<a />").
std::string Visible(std::string text) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  for (size_t close = text.find("</"); close != std::string::npos;
       close = text.find("</", close + 1)) {
    size_t end = text.find('>', close), gt = close;
    while (gt > 0 && blank(text[gt - 1])) --gt;
    if (end == std::string::npos || gt < 2 || text[gt - 1] != '>' || text[gt - 2] == '/') continue;
    std::string name = text.substr(close + 2, end - close - 2);
    size_t open = text.rfind('<', gt - 1);
    if (open == std::string::npos || text.compare(open + 1, name.size(), name) != 0 ||
        !(blank(text[open + 1 + name.size()]) || text[open + 1 + name.size()] == '>'))
      continue;
    text.replace(gt - 1, end + 1 - (gt - 1), "/>");
    close = gt;
  }
  text.erase(std::remove_if(text.begin(), text.end(), blank), text.end());
  return text;
}

// What was written reads back to the same elements, attributes and text; after one trip the
// written text is stable.
void ExpectRoundTrip(CPlixDOM& dom) {
  std::string first = Write(dom);
  CPlixDOM copy, again;
  FUZZ_EXPECT(copy.ReadDoc(first.c_str()) == 1);
  std::string second = Write(copy);
  FUZZ_EXPECT(Visible(second) == Visible(first) && Walk(copy).size() == Walk(dom).size());
  FUZZ_EXPECT(again.ReadDoc(second.c_str()) == 1 && Write(again) == second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kTags[] = {"Set", "File", "Process", "Bundle", "x"};
  static const char* const kNames[] = {"Name", "Value", "KeyName", "Action", "a", "x"};
  ftcfuzz::Reader in(data, size);
  std::string text = in.Until(0);
  CPlixDOM dom;
  if (dom.ReadDoc(text.c_str()) != 1) {
    FUZZ_EXPECT(dom.GetRootElement() == nullptr);
    return 0;
  }
  ExpectRoundTrip(dom);

  // Edits while a walk is under way over the same document.
  CPlixIterator walker;
  FUZZ_EXPECT(walker.BindToDOM(&dom) == 1 && walker.ToRootElement() == 1 &&
              walker.BeginTraverseHere() == 1);
  for (int steps = 0; !in.Empty() && steps < 64; ++steps) {
    uint8_t op = in.Byte();
    std::vector<CPlixElement*> elements = Walk(dom);
    CPlixElement* e = elements[in.Below(elements.size())];
    std::string value = in.Until(1);
    if (op % 6 == 0) e->SetAttribute(kNames[op / 6 % 6], value.c_str());
    if (op % 6 == 1) e->SetData(value.c_str());
    if (op % 6 == 2) e->InsertChild(kTags[op / 6 % 5]);
    if (op % 6 == 3) e->InsertNextSibling(kTags[op / 6 % 5]);
    if (op % 6 == 4 && e != dom.GetRootElement()) e->Delete();
    if (op % 6 == 5) walker.ContinueTraverse();
    if (CPlixElement* at = walker.GetElement()) FUZZ_EXPECT(at->GetTagName() != nullptr);
  }
  while (walker.ContinueTraverse() != 0) FUZZ_EXPECT(walker.GetElement() != nullptr);
  ExpectRoundTrip(dom);
  return 0;
}
