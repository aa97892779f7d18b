// The XML document: traversal order, edits that survive a write and re-read, broken input.

#include "platform/plix.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

// "+Tag" for a start ("+Tag:Name=text" when the element has them), "-Tag" for an end.
std::vector<std::string> Walk(CPlixIterator& it) {
  std::vector<std::string> events;
  for (int i = 0; i < 1000; ++i) {
    int e = it.ContinueTraverse();
    if (e == 0) return events;
    CPlixElement* el = it.GetElement();
    if (!el) return {"<no element>"};
    std::string ev = (e == 1 ? "+" : "-") + std::string(el->GetTagName());
    if (e == 1 && el->GetAttribute("Name")) ev += std::string(":") + el->GetAttribute("Name");
    if (e == 1 && *el->GetData()) ev += std::string("=") + el->GetData();
    events.push_back(ev);
  }
  ADD_FAILURE() << "traversal does not end";
  return events;
}

std::vector<std::string> WalkDocument(CPlixDOM& dom) {
  CPlixIterator it;
  if (it.BindToDOM(&dom) != 1 || it.ToRootElement() != 1 || it.BeginTraverseHere() != 1) return {};
  return Walk(it);
}

// Finds the first element with this tag by traversing from the root.
CPlixElement* Find(CPlixIterator& it, const char* tag) {
  if (it.ToRootElement() != 1 || it.BeginTraverseHere() != 1) return nullptr;
  for (int e; (e = it.ContinueTraverse()) != 0;)
    if (e == 1 && std::string(it.GetElement()->GetTagName()) == tag) return it.GetElement();
  return nullptr;
}

const char* kBundles =
    "<?xml version=\"1.0\"?>\n"
    "<DevInfo>\n"
    "  <!-- installed bundles -->\n"
    "  <Subsystem>\n"
    "    <Group Name=\"Alpha\"><Field Type=\"String\">1.0</Field></Group>\n"
    "    <Group Name=\"Beta\"><Field Type=\"String\">2.0</Field></Group>\n"
    "    <Empty/>\n"
    "  </Subsystem>\n"
    "</DevInfo>\n";

TEST(SdkPlixTraversal, ReportsStartsAndEndsInDocumentOrderBelowTheTop) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc(kBundles), 1);
  EXPECT_EQ(WalkDocument(dom),
            (std::vector<std::string>{"+DevInfo", "+Subsystem", "+Group:Alpha", "+Field=1.0",
                                      "-Field", "-Group", "+Group:Beta", "+Field=2.0", "-Field",
                                      "-Group", "+Empty", "-Empty", "-Subsystem", "-DevInfo"}));
  CPlixIterator it;
  ASSERT_EQ(it.BindToDOM(&dom), 1);
  ASSERT_NE(Find(it, "Group"), nullptr);
  ASSERT_EQ(it.BeginTraverseHere(), 1);
  EXPECT_EQ(Walk(it), (std::vector<std::string>{"+Group:Alpha", "+Field=1.0", "-Field", "-Group"}));
  EXPECT_EQ(it.ContinueTraverse(), 0);
}

TEST(SdkPlixDocument, BrokenOrEmptyInputIsRefusedWithoutHarm) {
  // Reading is left to the parser; what matters is that a refusal leaves nothing half-built.
  const char* inputs[] = {"", "<a><b></a>", "<!-- -->", "<a/><b/>"};
  for (const char* input : inputs) {
    SCOPED_TRACE(input);
    CPlixDOM dom("Old");
    EXPECT_EQ(dom.ReadDoc(input), 0);
    EXPECT_EQ(dom.GetRootElement(), nullptr);
    char* text = nullptr;
    EXPECT_EQ(dom.WriteDoc(&text), 0);
    EXPECT_EQ(text, nullptr);
    std::free(text);
    CPlixIterator it;
    it.BindToDOM(&dom);
    EXPECT_EQ(it.ToRootElement(), 0);
    EXPECT_EQ(it.ContinueTraverse(), 0);
  }
  CPlixDOM dom;
  EXPECT_EQ(dom.ReadDoc(nullptr), 0);
}

TEST(SdkPlixDocument, NewDocumentWithRootAndIteratorOutlivingIt) {
  CPlixIterator it;
  {
    CPlixDOM dom("Root");
    ASSERT_NE(dom.GetRootElement(), nullptr);
    EXPECT_STREQ(dom.GetRootElement()->GetTagName(), "Root");
    dom.GetRootElement()->InsertChild("Child")->SetData("x<y");
    EXPECT_EQ(WalkDocument(dom),
              (std::vector<std::string>{"+Root", "+Child=x<y", "-Child", "-Root"}));
    it.BindToDOM(&dom);
    it.ToRootElement();
    it.BeginTraverseHere();
    EXPECT_EQ(it.ContinueTraverse(), 1);
    // Re-reading drops every handle and the traversal with them.
    ASSERT_EQ(dom.ReadDoc("<Other/>"), 1);
    EXPECT_EQ(it.GetElement(), nullptr);
    EXPECT_EQ(it.ContinueTraverse(), 0);
  }
  EXPECT_EQ(it.ToRootElement(), 0);
  EXPECT_EQ(it.ContinueTraverse(), 0);
}

}  // namespace
