// The XML document: traversal order, edits that survive a write and re-read, broken input.

#include "platform/plix.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

// "+Tag" for a start, "-Tag" for an end, in the order ContinueTraverse reports them.
std::vector<std::string> Walk(CPlixIterator& it) {
  std::vector<std::string> events;
  for (int i = 0; i < 1000; ++i) {
    int e = it.ContinueTraverse();
    if (e == 0) return events;
    CPlixElement* el = it.GetElement();
    events.push_back((e == 1 ? "+" : "-") + std::string(el ? el->GetTagName() : "?"));
  }
  ADD_FAILURE() << "traversal does not end";
  return events;
}

std::vector<std::string> WalkDocument(CPlixDOM& dom) {
  CPlixIterator it;
  if (it.BindToDOM(&dom) != 1 || it.ToRootElement() != 1 || it.BeginTraverseHere() != 1) return {};
  return Walk(it);
}

std::string Write(CPlixDOM& dom) {
  char* text = nullptr;
  if (dom.WriteDoc(&text) != 1 || !text) return "";
  std::string s(text);
  std::free(text);
  return s;
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
    "  <Subsystem Name=\"QVBundles\">\n"
    "    <Group Name=\"Alpha\"><Field Name=\"Version\" Type=\"String\">1.0</Field></Group>\n"
    "    <Group Name=\"Beta\"><Field Name=\"Version\" Type=\"String\">2.0</Field></Group>\n"
    "    <Empty/>\n"
    "  </Subsystem>\n"
    "</DevInfo>\n";

TEST(SdkPlixTraversal, ReportsStartsAndEndsInDocumentOrder) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc(kBundles), 1);
  EXPECT_EQ(WalkDocument(dom),
            (std::vector<std::string>{"+DevInfo", "+Subsystem", "+Group", "+Field", "-Field",
                                      "-Group", "+Group", "+Field", "-Field", "-Group", "+Empty",
                                      "-Empty", "-Subsystem", "-DevInfo"}));
}

TEST(SdkPlixTraversal, BeginningInsideTheDocumentWalksOnlyThatSubtree) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc(kBundles), 1);
  CPlixIterator it;
  ASSERT_EQ(it.BindToDOM(&dom), 1);
  ASSERT_NE(Find(it, "Group"), nullptr);
  ASSERT_EQ(it.BeginTraverseHere(), 1);
  EXPECT_EQ(Walk(it), (std::vector<std::string>{"+Group", "+Field", "-Field", "-Group"}));
  EXPECT_EQ(it.ContinueTraverse(), 0);
}

TEST(SdkPlixElement, ReadsAttributesAndOwnText) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc("<R><F Name=\"Version\" Type=\"String\">3.50d</F>"
                        "<M>a<X>inner</X>b<![CDATA[<c>]]></M><E/></R>"),
            1);
  CPlixIterator it;
  it.BindToDOM(&dom);
  CPlixElement* f = Find(it, "F");
  ASSERT_NE(f, nullptr);
  EXPECT_STREQ(f->GetAttribute("Name"), "Version");
  EXPECT_EQ(f->GetAttribute("name"), nullptr);  // attribute names are exact
  EXPECT_STREQ(f->GetData(), "3.50d");
  EXPECT_STREQ(Find(it, "M")->GetData(), "ab<c>");
  EXPECT_STREQ(Find(it, "E")->GetData(), "");
  // The same node is the same handle, however it was reached.
  EXPECT_EQ(Find(it, "R"), dom.GetRootElement());
}

TEST(SdkPlixEdit, EditsSurviveWriteAndReRead) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc(kBundles), 1);
  CPlixIterator it;
  it.BindToDOM(&dom);

  CPlixElement* subsystem = Find(it, "Subsystem");
  ASSERT_NE(subsystem, nullptr);
  CPlixElement* group = subsystem->InsertChild("Group");
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->SetAttribute("Name", "Gamma & <Co>"), 1);
  CPlixElement* field = group->InsertChild("Field");
  ASSERT_NE(field, nullptr);
  field->SetAttribute("Name", "Version");
  field->SetData("3.0");
  field->SetData("3.1");  // replaces, does not append
  ASSERT_NE(Find(it, "Empty")->InsertNextSibling("After"), nullptr);
  EXPECT_EQ(dom.GetRootElement()->InsertNextSibling("Second"), nullptr);
  Find(it, "Group")->SetAttribute("Name", "Alpha2");
  EXPECT_EQ(Find(it, "Group")->Delete(), 1);  // Alpha2 goes

  std::string text = Write(dom);
  EXPECT_EQ(text.find("\xEF\xBB\xBF"), std::string::npos);
  CPlixDOM again;
  ASSERT_EQ(again.ReadDoc(text.c_str()), 1) << text;
  EXPECT_EQ(WalkDocument(again),
            (std::vector<std::string>{"+DevInfo", "+Subsystem", "+Group", "+Field", "-Field",
                                      "-Group", "+Empty", "-Empty", "+After", "-After", "+Group",
                                      "+Field", "-Field", "-Group", "-Subsystem", "-DevInfo"}));
  CPlixIterator it2;
  it2.BindToDOM(&again);
  ASSERT_EQ(it2.ToRootElement(), 1);
  it2.BeginTraverseHere();
  std::vector<std::string> names;
  for (int e; (e = it2.ContinueTraverse()) != 0;) {
    CPlixElement* el = it2.GetElement();
    std::string tag = el->GetTagName();
    if (e == 1 && tag == "Group") names.push_back(el->GetAttribute("Name"));
    if (e == 1 && tag == "Field") names.push_back(el->GetData());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Beta", "2.0", "Gamma & <Co>", "3.1"}));
}

TEST(SdkPlixEdit, DeletingDuringTraversalNeverWalksFreedNodes) {
  struct Case {
    const char* what;
    const char* deleteTag;  // deleted when its start is reported
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"current element: the walk goes on with its sibling",
       "A",
       {"+R", "+A", "+B", "+Z", "-Z", "-B", "-R"}},
      {"last child: the walk goes on with the parent's end",
       "B",
       {"+R", "+A", "+X", "-X", "+Y", "-Y", "-A", "+B", "-R"}},
      {"the top itself: the walk ends", "R", {"+R"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CPlixDOM dom;
    ASSERT_EQ(dom.ReadDoc("<R><A><X/><Y/></A><B><Z/></B></R>"), 1);
    CPlixIterator it;
    it.BindToDOM(&dom);
    it.ToRootElement();
    it.BeginTraverseHere();
    std::vector<std::string> events;
    for (int e; (e = it.ContinueTraverse()) != 0 && events.size() < 50;) {
      CPlixElement* el = it.GetElement();
      ASSERT_NE(el, nullptr);
      std::string tag = el->GetTagName();
      events.push_back((e == 1 ? "+" : "-") + tag);
      if (e == 1 && tag == c.deleteTag) {
        EXPECT_EQ(el->Delete(), 1);
        EXPECT_EQ(it.GetElement(), nullptr);
      }
    }
    EXPECT_EQ(events, c.expected);
  }
}

TEST(SdkPlixEdit, DeletingAnAncestorOfTheCurrentElementSkipsItsRest) {
  CPlixDOM dom;
  ASSERT_EQ(dom.ReadDoc("<R><A><X/><Y/></A><B/></R>"), 1);
  CPlixIterator it;
  it.BindToDOM(&dom);
  ASSERT_NE(Find(it, "A"), nullptr);
  CPlixElement* a = it.GetElement();
  ASSERT_EQ(it.ContinueTraverse(), 1);  // on X
  a->Delete();
  EXPECT_EQ(Walk(it), (std::vector<std::string>{"+B", "-B", "-R"}));
}

TEST(SdkPlixDocument, BrokenOrEmptyInputIsRefusedWithoutHarm) {
  const char* inputs[] = {
      "",           "   ",           "<",
      "<a><b></a>", "<a x=\"1></a>", "not xml at all",
      "<!-- -->",   "<a></a>x<b/>",  "\xff\xfe<\x01\x80>",
      "<a/><b/>",
  };
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
    EXPECT_NE(Write(dom).find("<Child>x&lt;y</Child>"), std::string::npos);
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
