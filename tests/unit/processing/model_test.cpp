// The processing model: lists built from an XML fragment match those built field by field.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "platform/plix.h"
#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"

namespace {

std::string Dump(CQVProcessingHandler& handler) {
  std::ostringstream out;
  for (LLNode* node = handler.GetRegistryHandler()->GetList().first(); node; node = node->next()) {
    auto* e = static_cast<CQVRegistryEntry*>(node->data());
    out << "reg " << e->GetOperation() << '|' << e->GetKeyName() << '|' << e->GetValueName() << '|'
        << e->GetValue() << '|' << e->GetType() << '\n';
  }
  for (CQVFileEntry* e : handler.GetFileHandler()->GetEntries())
    out << "file " << e->GetOperation() << '|' << e->GetSource() << '|' << e->GetDest() << '\n';
  for (const char* s : handler.GetFileHandler()->GetSaveEntries()) out << "save " << s << '\n';
  for (CQVExeEntry* e : handler.GetExeHandler()->GetEntries())
    out << "exe " << e->GetFile() << '|' << e->GetCmdLine() << '|' << e->GetStartIn() << '|'
        << e->GetWait() << '\n';
  for (const char* p : handler.GetProcessNames()) out << "stop " << p << '\n';
  return out.str();
}

const char kJob[] = R"(<Job>
  <PreProcessing>
    <StopProcesses><Process>app.exe</Process><Process>Agent.exe</Process></StopProcesses>
    <Process>outside.exe</Process>
    <StopProcesses/>
    <Registry>
      <Set KeyName="HKEY_LOCAL_MACHINE\Software\Demo" ValueName="Mode" Value="7" Type="REG_DWORD"/>
      <DeleteValue KeyName="HKEY_LOCAL_MACHINE\Software\Demo" ValueName="Old"/>
      <Set/>
    </Registry>
    <FileOperations>
      <File Action="Save" Name="\Data\keep.txt"/>
      <File Name="\Data\no-action.txt"/>
      <File Action="Delete" Name="\Data" Dest="\ignored"/>
      <File Action="Rename" Name="\a.txt" Dest="\b.txt"/>
      <File Action="CopyDir" SourceDir="\src" DestDir="\dst" Name="\ignored"/>
      <File Action="Shred" Name="\c.txt"/>
    </FileOperations>
    <Executable Name="\Windows\updatebin.exe" CmdLine="/QV_Silent" StartIn="\temp" Wait="true"/>
    <Executable Name="\x.exe" Wait="True"/>
  </PreProcessing>
  <PostProcessing>
    <Set KeyName="HKEY_LOCAL_MACHINE\Post" ValueName="P" Value="1" Type="REG_SZ"/>
  </PostProcessing>
</Job>)";

// Starts a traversal of doc at its root and advances to the first element named tag.
bool TraverseTo(CPlixDOM& dom, CPlixIterator& it, const char* tag) {
  if (!it.BindToDOM(&dom) || !it.ToRootElement() || !it.BeginTraverseHere()) return false;
  while (int event = it.ContinueTraverse()) {
    if (event == 1 && strcmp(it.GetElement()->GetTagName(), tag) == 0) return true;
  }
  return false;
}

char* HeapCopy(const char* text) {
  char* copy = static_cast<char*>(malloc(strlen(text) + 1));
  strcpy(copy, text);
  return copy;
}

}  // namespace

TEST(ProcessingModel, XmlFragmentGivesTheSameListsAsFieldByFieldBuilding) {
  ftctest::DeviceRoot root;
  CPlixDOM dom;
  ASSERT_TRUE(dom.ReadDoc(kJob));
  CPlixIterator it;
  ASSERT_TRUE(TraverseTo(dom, it, "PreProcessing"));
  CQVProcessingHandler loaded;
  EXPECT_EQ(0, loaded.LoadData(&it));
  // LoadData stops at the end of its own element: the post-processing section comes next.
  ASSERT_EQ(1, it.ContinueTraverse());
  EXPECT_STREQ("PostProcessing", it.GetElement()->GetTagName());

  // The same job as the group/field protocol hands it over.
  CQVProcessingHandler built;
  built.AddProcess("app.exe");
  built.AddProcess("Agent.exe");
  auto* set = new CQVRegistryEntry;
  set->SetOperation("Set");
  set->SetKeyName("HKEY_LOCAL_MACHINE\\Software\\Demo");
  set->SetValueName("Mode");
  set->SetValue("7");
  set->SetType("REG_DWORD");
  built.GetRegistryHandler()->AddEntry(set);
  built.GetRegistryHandler()->AddEntry(new CQVRegistryEntry(
      "DeleteValue", "HKEY_LOCAL_MACHINE\\Software\\Demo", "Old", nullptr, nullptr));
  built.GetRegistryHandler()->AddEntry(new CQVRegistryEntry("Set", "", "", "", ""));
  built.GetFileHandler()->AddSaveEntry(HeapCopy("\\Data\\keep.txt"));
  built.GetFileHandler()->AddEntry(new CQVFileEntry("Delete", "\\Data", ""));
  built.GetFileHandler()->AddEntry(new CQVFileEntry("Rename", "\\a.txt", "\\b.txt"));
  built.GetFileHandler()->AddEntry(new CQVFileEntry("CopyDir", "\\src", "\\dst"));
  built.GetFileHandler()->AddEntry(new CQVFileEntry("Shred", "\\c.txt", nullptr));
  auto* exe = new CQVExeEntry;
  exe->SetFile("\\Windows\\updatebin.exe");
  exe->SetCmdLine("/QV_Silent");
  exe->SetStartIn("\\temp");
  built.GetExeHandler()->AddEntry(exe);
  built.GetExeHandler()->AddEntry(new CQVExeEntry("\\x.exe", nullptr, nullptr, 0));
  EXPECT_EQ(0, built.GetExeHandler()->AddEntry(nullptr));
  EXPECT_EQ(0, built.GetFileHandler()->AddSaveEntry(nullptr));

  EXPECT_EQ(Dump(built), Dump(loaded));
  EXPECT_EQ(
      "reg Set|HKEY_LOCAL_MACHINE\\Software\\Demo|Mode|7|REG_DWORD\n"
      "reg DeleteValue|HKEY_LOCAL_MACHINE\\Software\\Demo|Old||\n"
      "reg Set||||\n"
      "file Delete|\\Data|\n"
      "file Rename|\\a.txt|\\b.txt\n"
      "file CopyDir|\\src|\\dst\n"
      "file Shred|\\c.txt|\n"
      "save \\Data\\keep.txt\n"
      "exe \\Windows\\updatebin.exe|/QV_Silent|\\temp|1\n"
      "exe \\x.exe|||0\n"
      "stop app.exe\n"
      "stop Agent.exe\n",
      Dump(loaded));
  EXPECT_NE(std::string::npos,
            root.ReadFile("/tmp/FileXfer.txt").find("File - adding Rename, \\a.txt, \\b.txt\r\n"));
}

TEST(ProcessingModel, FragmentThatEndsBeforeItsOuterElementStillReturns) {
  ftctest::DeviceRoot root;
  // The traversal's top is not a processing element, so its end is never the outer end.
  const char* docs[] = {
      "<Job><Registry><Set KeyName='HKEY_USERS\\k' Type='REG_SZ'/></Registry></Job>",
      "<StopProcesses><Process>a.exe</Process></StopProcesses>",
      "<Job/>",
  };
  for (const char* text : docs) {
    SCOPED_TRACE(text);
    CPlixDOM dom;
    ASSERT_TRUE(dom.ReadDoc(text));
    CPlixIterator it;
    ASSERT_TRUE(it.BindToDOM(&dom) && it.ToRootElement() && it.BeginTraverseHere());
    ASSERT_EQ(1, it.ContinueTraverse());
    CQVProcessingHandler handler;
    EXPECT_EQ(0, handler.LoadData(&it));
    EXPECT_EQ(0, it.ContinueTraverse());
  }
  CQVProcessingHandler handler;
  EXPECT_EQ(0, handler.LoadData(nullptr));
}

TEST(ProcessingModel, OverlongTextsAreRefusedNotCut) {
  ftctest::DeviceRoot root;
  const std::string fits(255, 'k'), tooLong(256, 'k');
  CQVRegistryEntry reg("DeleteValue", fits.c_str(), tooLong.c_str(), "v", "REG_DWORDXYZ");
  EXPECT_STREQ("DeleteValue", reg.GetOperation());
  EXPECT_EQ(fits, reg.GetKeyName());
  EXPECT_STREQ("", reg.GetValueName());
  EXPECT_STREQ("", reg.GetType());
  CQVFileEntry file;
  EXPECT_EQ(0, file.SetSource(tooLong.c_str()));
  EXPECT_STREQ("", file.GetSource());
  EXPECT_EQ(0, file.SetOperation("DeleteValueX"));
  EXPECT_STREQ("", file.GetOperation());
  CQVExeEntry exe;
  EXPECT_EQ(1, exe.GetWait());
  EXPECT_EQ(1, exe.SetCmdLine(fits.c_str()));
  EXPECT_EQ(0, exe.SetCmdLine(tooLong.c_str()));
  EXPECT_STREQ("", exe.GetCmdLine());
}

TEST(ProcessingModel, ListUnlinksOnlyTheFirstMatchingNode) {
  int a = 1, b = 2;
  LList list(nullptr);
  for (void* item : {static_cast<void*>(&a), static_cast<void*>(&b), static_cast<void*>(&a)})
    ASSERT_EQ(1, list.additem(item));
  EXPECT_EQ(1, list.deleteitem(&a));
  EXPECT_EQ(0, list.deleteitem(&list));
  ASSERT_NE(nullptr, list.first());
  EXPECT_EQ(&b, list.first()->data());
  ASSERT_NE(nullptr, list.first()->next());
  EXPECT_EQ(&a, list.first()->next()->data());
  EXPECT_EQ(nullptr, list.first()->next()->next());
  EXPECT_EQ(1, list.deleteitem(&a));
  EXPECT_EQ(nullptr, list.first()->next());
}
