#include "processing/QVFileHandler.h"

#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"

namespace {

// Deeper trees are left alone: a link or a copy into its own sub-folder would otherwise recurse
// without end.
const int kMaxDepth = 64;

std::wstring Widen(const std::string& text) {
  std::vector<wchar_t> out(text.size() + 1, L'\0');
  QVToTStrW(text.c_str(), out.data(), static_cast<int>(out.size()));
  return std::wstring(out.data());
}

std::string Narrow(const wchar_t* text, size_t length) {
  std::wstring bounded(text, length);
  std::vector<char> out(length * 4 + 1, '\0');
  QVToASCIIStringW(bounded.c_str(), out.data(), static_cast<int>(out.size()));
  return std::string(out.data());
}

// The find data's name need not be terminated within its array.
size_t FoundLength(const WIN32_FIND_DATA& data) {
  size_t length = 0;
  while (length < MAX_PATH && data.cFileName[length]) ++length;
  return length;
}

std::string FoundName(const WIN32_FIND_DATA& data) {
  return Narrow(data.cFileName, FoundLength(data));
}

std::wstring FoundNameW(const WIN32_FIND_DATA& data) {
  return std::wstring(data.cFileName, FoundLength(data));
}

std::string ChildPath(const std::string& folder, const std::string& name) {
  if (!folder.empty() && folder.back() == '\\') return folder + name;
  return folder + "\\" + name;
}

template <typename String>
String WithoutTrailingSeparator(String path) {
  while (path.size() > 1 && path.back() == '\\') path.pop_back();
  return path;
}

void DeleteReadOnlyAware(const std::wstring& path, const char* retryLine) {
  if (DeleteFile(path.c_str())) return;
  DWORD attributes = GetFileAttributes(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_READONLY)) return;
  attributes &= ~(FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_MOUNTED_STORE);
  if (!SetFileAttributes(path.c_str(), attributes)) return;
  LogMsg(retryLine, path.c_str());
  DeleteFile(path.c_str());
}

// The folder part of a path ("\a\b\c.txt" -> "\a\b").
std::wstring FolderOf(const std::wstring& path) {
  std::vector<wchar_t> drive(path.size() + 1, L'\0');
  std::vector<wchar_t> dir(path.size() + 1, L'\0');
  TVLFileSplitPathW(path.c_str(), drive.data(), static_cast<int>(drive.size()), dir.data(),
                    static_cast<int>(dir.size()), nullptr, 0, nullptr, 0);
  return std::wstring(drive.data()) + std::wstring(dir.data());
}

// Device paths compare without regard to (ASCII) case.
bool SamePath(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b) {
    if (*a == *b) continue;
    unsigned char x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return *a == *b;
}

bool IsSavedPath(const std::vector<char*>& saved, const std::string& path) {
  for (const char* s : saved)
    if (s && SamePath(s, path.c_str())) return true;
  return false;
}

void RemoveFilesAt(const std::string& path, int depth, const std::vector<char*>& saved) {
  LogMsg("FileTransferConfiglet - CQVFileHandler::RemoveFiles, %s\r\n", path.c_str());
  std::string request = path;
  const bool singleFile = request.find('.') != std::string::npos;
  if (!singleFile) request += (!request.empty() && request.back() == '\\') ? "*.*" : "\\*.*";
  std::wstring requestW = Widen(request);

  WIN32_FIND_DATA data;
  memset(&data, 0, sizeof data);
  // An empty path would name the whole device: never taken as a request.
  HANDLE find = path.empty() ? INVALID_HANDLE_VALUE : FindFirstFile(requestW.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) {
    LogMsg("FileTransferConfiglet - CQVFileHandler::RemoveFiles, no file found %S\r\n",
           requestW.c_str());
    return;
  }

  if (singleFile) {
    FindClose(find);
    LogMsg("Deleting File, %S\r\n", requestW.c_str());
    DeleteReadOnlyAware(requestW, "Deleting File 2, %S\r\n");
    return;
  }

  do {
    std::string name = FoundName(data);
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      LogMsg("Directory, %s\r\n", name.c_str());
      if (CQVFileHandler::IsDots(FoundNameW(data).c_str())) continue;
      std::string child = ChildPath(path, name);
      if (depth >= kMaxDepth) {
        LogMsg("FileTransferConfiglet - CQVFileHandler::RemoveFiles, too deep, %s\r\n",
               child.c_str());
        continue;
      }
      RemoveFilesAt(child, depth + 1, saved);
      LogMsg("Deleting directory %s\r\n", child.c_str());
      RemoveDirectory(Widen(child).c_str());
    } else {
      LogMsg("Fiile, %s\r\n", name.c_str());
      // Read-only files in a folder being emptied are kept on purpose.
      if (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) continue;
      std::string child = ChildPath(path, name);
      if (IsSavedPath(saved, child)) continue;
      std::wstring childW = Widen(child);
      LogMsg("Deleting File 3, %S\r\n", childW.c_str());
      DeleteReadOnlyAware(childW, "Deleting File 4, %S\r\n");
    }
  } while (FindNextFile(find, &data));
  FindClose(find);
}

int CopyDirectoryAt(const std::wstring& from, const std::wstring& to, int depth) {
  if (from.empty() || to.empty() || depth > kMaxDepth) return 0;
  const std::wstring pattern = from + L"\\*.*";
  const std::wstring sourceBase = from + L"\\";
  const std::wstring targetBase = to + L"\\";

  WIN32_FIND_DATA data;
  memset(&data, 0, sizeof data);
  HANDLE find = FindFirstFile(pattern.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) {
    // An empty folder has nothing to copy; a missing one is a failure.
    DWORD attributes = GetFileAttributes(from.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
  }
  do {
    std::wstring name = FoundNameW(data);
    if (CQVFileHandler::IsDots(name.c_str())) continue;
    std::wstring source = sourceBase + name;
    std::wstring target = targetBase + name;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      CQVFileHandler::MakeSureFolderExists(target.c_str());
      if (!CopyDirectoryAt(source, target, depth + 1)) {
        FindClose(find);
        return 0;
      }
    } else {
      CQVFileHandler::MakeSureFolderExists(to.c_str());
      if (!CopyFile(source.c_str(), target.c_str(), FALSE)) {
        FindClose(find);
        return 0;
      }
    }
  } while (FindNextFile(find, &data));
  FindClose(find);
  return 1;
}

int MakeFolder(const std::wstring& path) {
  if (CQVFileHandler::Exists(path.c_str())) return 1;
  if (CreateDirectory(path.c_str(), nullptr)) return 1;
  size_t cut = path.rfind(L'\\');
  if (cut == std::wstring::npos || cut == 0) return 0;
  MakeFolder(path.substr(0, cut));
  return CreateDirectory(path.c_str(), nullptr) ? 1 : 0;
}

}  // namespace

CQVFileHandler::CQVFileHandler() {}

CQVFileHandler::~CQVFileHandler() {
  for (CQVFileEntry* entry : m_Entries) delete entry;
  for (char* path : m_SaveEntries) LocalFree(path);
}

int CQVFileHandler::AddEntry(CQVFileEntry* entry) {
  if (!entry) return 0;
  m_Entries.push_back(entry);
  return 1;
}

int CQVFileHandler::AddSaveEntry(char* path) {
  if (!path) return 0;
  m_SaveEntries.push_back(path);
  return 1;
}

int CQVFileHandler::DoIt() {
  for (CQVFileEntry* entry : m_Entries) {
    if (!entry) continue;
    const char* operation = entry->GetOperation();
    const char* source = entry->GetSource();
    const char* dest = entry->GetDest();
    std::wstring sourceW = Widen(source);
    std::wstring destW = Widen(dest);
    if (strcmp(operation, "Rename") == 0) {
      LogMsg("Rename !%s! to !%s!\r\n", source, dest);
      MakeSureFolderExists(FolderOf(destW).c_str());
      TVLRenameFileW(sourceW.c_str(), destW.c_str());
    } else if (strcmp(operation, "Copy") == 0) {
      LogMsg("Copying !%s! to !%s!\r\n", source, dest);
      MakeSureFolderExists(FolderOf(destW).c_str());
      TVLCopyFileW(sourceW.c_str(), destW.c_str());
    } else if (strcmp(operation, "CopyDir") == 0) {
      LogMsg("CopyDir !%s! to !%s!\r\n", source, dest);
      CopyDirectory(sourceW.c_str(), destW.c_str());
    } else if (strcmp(operation, "Delete") == 0) {
      LogMsg("Removing files !%s!\r\n", source);
      RemoveFiles(source);
    }
  }
  return static_cast<int>(m_Entries.size());
}

void CQVFileHandler::RemoveFiles(const char* path) {
  RemoveFilesAt(path ? path : "", 0, m_SaveEntries);
}

int CQVFileHandler::CopyDirectory(const wchar_t* from, const wchar_t* to) {
  if (!from || !to) return 0;
  return CopyDirectoryAt(WithoutTrailingSeparator(std::wstring(from)),
                         WithoutTrailingSeparator(std::wstring(to)), 0);
}

int CQVFileHandler::Exists(const wchar_t* path) {
  if (!path || !path[0]) return 0;
  WIN32_FIND_DATA data;
  memset(&data, 0, sizeof data);
  HANDLE find = FindFirstFile(path, &data);
  if (find == INVALID_HANDLE_VALUE) return 0;
  FindClose(find);
  return 1;
}

int CQVFileHandler::MakeSureFolderExists(const wchar_t* path) {
  if (!path || !path[0]) return 0;
  return MakeFolder(WithoutTrailingSeparator(std::wstring(path)));
}

int CQVFileHandler::IsDots(const wchar_t* name) {
  if (!name) return 0;
  return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0;
}
