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

  // Actions without a name are dropped; only "true" exactly asks to wait.
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
  EXPECT_EQ(0, loaded.GetExeHandler()->AddEntry(nullptr));
  EXPECT_EQ(0, loaded.GetFileHandler()->AddSaveEntry(nullptr));
  EXPECT_NE(std::string::npos, root.Log().find("File - adding Rename, \\a.txt, \\b.txt\r\n"));
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
