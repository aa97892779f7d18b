#include <cxxabi.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace winux {

namespace {

const DWORD kStillActive = 259;
const DWORD kErrorNotOwner = 288;
const DWORD kErrorTooManyPosts = 298;

// One lock and one condition for every platform object: waits are rare and short-lived, and a
// single condition lets TerminateThread wake a thread whatever it waits on.
std::mutex& SyncLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}
std::condition_variable& SyncCondition() {
  static std::condition_variable* cv = new std::condition_variable;
  return *cv;
}

struct ThreadRec {
  DWORD tid = 0;
  bool ended = false;  // guarded by SyncLock
  DWORD exitCode = kStillActive;
  std::atomic<bool> cancel{false};
  DWORD cancelCode = 0;
  bool platformThread = false;  // started by CreateThread, so TerminateThread may end it
};

DWORD CurrentTid() {
  return static_cast<DWORD>(syscall(SYS_gettid));
}

// Marks foreign threads (not started by CreateThread) as ended when they exit, so a mutex they
// held counts as abandoned.
struct SelfHolder {
  std::shared_ptr<ThreadRec> rec;
  ~SelfHolder() {
    if (!rec) return;
    std::lock_guard<std::mutex> guard(SyncLock());
    rec->ended = true;
    SyncCondition().notify_all();
  }
};
thread_local SelfHolder t_self;

std::shared_ptr<ThreadRec> Self() {
  if (!t_self.rec) {
    t_self.rec = std::make_shared<ThreadRec>();
    t_self.rec->tid = CurrentTid();
  }
  return t_self.rec;
}

struct ThreadObject : Object {
  ThreadObject() : Object(Kind::Thread) {}
  std::shared_ptr<ThreadRec> rec;
};

struct SyncObject : Object {
  using Object::Object;
  std::wstring name;
};

struct EventObject : SyncObject {
  EventObject() : SyncObject(Kind::Event) {}
  bool manualReset = false;
  bool signaled = false;
};

struct MutexObject : SyncObject {
  MutexObject() : SyncObject(Kind::Mutex) {}
  std::shared_ptr<ThreadRec> owner;
  int depth = 0;
};

struct SemaphoreObject : SyncObject {
  SemaphoreObject() : SyncObject(Kind::Semaphore) {}
  LONG count = 0;
  LONG maximum = 1;
};

// Handles hold the shared object; the name table only remembers it while a handle is open
// (expired entries are overwritten by the next create of that name).
std::map<std::wstring, std::weak_ptr<SyncObject>>& Names() {
  static auto* names = new std::map<std::wstring, std::weak_ptr<SyncObject>>;
  return *names;
}
std::mutex& NamesLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

// Creates or opens a named object. Null with last error when the name holds another kind.
template <typename T, typename Init>
HANDLE CreateNamed(LPCWSTR name, Kind kind, Init init) {
  if (!name || !*name) {
    auto object = std::make_shared<T>();
    init(*object, true);
    SetLastError(ERROR_SUCCESS);
    return AddHandle(object);
  }
  std::lock_guard<std::mutex> guard(NamesLock());
  auto it = Names().find(name);
  if (it != Names().end()) {
    if (auto existing = it->second.lock()) {
      if (existing->kind != kind) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
      }
      HANDLE h = AddHandle(existing);
      SetLastError(ERROR_ALREADY_EXISTS);
      return h;
    }
  }
  auto object = std::make_shared<T>();
  object->name = name;
  init(*object, true);
  Names()[name] = object;
  SetLastError(ERROR_SUCCESS);
  return AddHandle(object);
}

bool MutexAvailable(const MutexObject& m, const std::shared_ptr<ThreadRec>& me) {
  return !m.owner || m.owner == me || m.owner->ended;  // an ended owner abandoned it
}

[[noreturn]] void EndThisThread() {
  std::shared_ptr<ThreadRec> me = Self();
  DWORD code;
  {
    std::lock_guard<std::mutex> guard(SyncLock());
    code = me->cancelCode;
  }
  pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(code)));
}

using Clock = std::chrono::steady_clock;

// Waits until ready() holds, the scaled time-out passes, or this thread is terminated.
// REQUIRES: lock holds SyncLock(). Returns false on time-out; cancelled set on termination.
template <typename Ready>
bool WaitLocked(std::unique_lock<std::mutex>& lock, DWORD milliseconds, Ready ready,
                bool& cancelled, bool poll = false) {
  std::shared_ptr<ThreadRec> me = Self();
  DWORD scaled = WinuxScaleMs(milliseconds);
  const bool forever = scaled == INFINITE;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : scaled);
  for (;;) {
    if (me->platformThread && me->cancel.load()) {
      cancelled = true;
      return false;
    }
    if (ready()) return true;
    Clock::time_point until = forever ? Clock::now() + std::chrono::hours(1) : deadline;
    if (poll) until = std::min(until, Clock::now() + std::chrono::milliseconds(5));
    if (!forever && Clock::now() >= deadline) return false;
    SyncCondition().wait_until(lock, until);
  }
}

void* ThreadMain(void* arg);

// Threads started by CreateThread that have not ended yet; guarded by SyncLock.
int g_livePlatformThreads = 0;

struct StartBlock {
  std::shared_ptr<ThreadRec> rec;
  LPTHREAD_START_ROUTINE start;
  LPVOID parameter;
};

// Runs at the thread's end however it ends (return or TerminateThread's unwind).
struct EndMarker {
  std::shared_ptr<ThreadRec> rec;
  DWORD code = 0;
  bool returned = false;
  ~EndMarker() {
    std::lock_guard<std::mutex> guard(SyncLock());
    rec->exitCode = returned ? code : rec->cancelCode;
    rec->ended = true;
    --g_livePlatformThreads;
    SyncCondition().notify_all();
  }
};

// The forced unwind has no object to bind; the sanitizer would flag the catch clause.
__attribute__((no_sanitize("undefined"))) void* ThreadMain(void* arg) {
  std::unique_ptr<StartBlock> block(static_cast<StartBlock*>(arg));
  t_self.rec = block->rec;
  EndMarker marker;
  marker.rec = block->rec;
  {
    std::lock_guard<std::mutex> guard(SyncLock());
    block->rec->tid = CurrentTid();
    SyncCondition().notify_all();
  }
  try {
    marker.code = block->start(block->parameter);
    marker.returned = true;
  } catch (abi::__forced_unwind&) {
    throw;  // TerminateThread's unwind must go on
  } catch (...) {
    marker.code = 0xE0000001u;  // no exception may leave a thread
    marker.returned = true;
  }
  return nullptr;
}

}  // namespace

void CancellationPoint() {
  std::shared_ptr<ThreadRec> me = Self();
  if (me->platformThread && me->cancel.load()) EndThisThread();
}

}  // namespace winux

using namespace winux;

extern "C" HANDLE CreateThread(LPSECURITY_ATTRIBUTES, DWORD stackSize, LPTHREAD_START_ROUTINE start,
                               LPVOID parameter, DWORD, LPDWORD threadId) {
  if (!start) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto rec = std::make_shared<ThreadRec>();
  rec->platformThread = true;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stackSize != 0) {
    size_t size = stackSize;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    size *= 4;  // instrumented frames are several times larger than the device's
#endif
    long page = sysconf(_SC_PAGESIZE);
    if (page > 0)
      size = (size + static_cast<size_t>(page) - 1) / static_cast<size_t>(page) *
             static_cast<size_t>(page);
    if (size < static_cast<size_t>(PTHREAD_STACK_MIN)) size = PTHREAD_STACK_MIN;
    pthread_attr_setstacksize(&attr, size);
  }
  auto* block = new StartBlock{rec, start, parameter};
  {
    std::lock_guard<std::mutex> guard(SyncLock());
    ++g_livePlatformThreads;
  }
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, ThreadMain, block);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    {
      std::lock_guard<std::mutex> guard(SyncLock());
      --g_livePlatformThreads;
    }
    delete block;
    WinuxSetLastErrorFromErrno(rc);
    return nullptr;
  }
  {
    std::unique_lock<std::mutex> lock(SyncLock());
    SyncCondition().wait(lock, [&] { return rec->tid != 0; });
  }
  if (threadId) *threadId = rec->tid;
  auto object = std::make_shared<ThreadObject>();
  object->rec = rec;
  return AddHandle(object);
}

bool WinuxWaitForPlatformThreads(DWORD realMilliseconds) {
  std::unique_lock<std::mutex> lock(SyncLock());
  return SyncCondition().wait_for(lock, std::chrono::milliseconds(realMilliseconds),
                                  [] { return g_livePlatformThreads == 0; });
}

extern "C" BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
  auto object = Lookup<ThreadObject>(thread, Kind::Thread);
  if (!object) return FALSE;
  {
    std::lock_guard<std::mutex> guard(SyncLock());
    if (object->rec->ended) return TRUE;
    object->rec->cancelCode = exitCode;
    object->rec->cancel.store(true);
    SyncCondition().notify_all();
  }
  if (object->rec == Self()) EndThisThread();
  return TRUE;
}

extern "C" BOOL GetExitCodeThread(HANDLE thread, LPDWORD exitCode) {
  auto object = Lookup<ThreadObject>(thread, Kind::Thread);
  if (!object || !exitCode) {
    if (object) SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::lock_guard<std::mutex> guard(SyncLock());
  *exitCode = object->rec->ended ? object->rec->exitCode : kStillActive;
  return TRUE;
}

extern "C" DWORD GetCurrentThreadId(void) {
  return Self()->tid;
}

extern "C" void Sleep(DWORD milliseconds) {
  bool cancelled = false;
  {
    std::unique_lock<std::mutex> lock(SyncLock());
    if (milliseconds == 0) {
      lock.unlock();
      CancellationPoint();
      sched_yield();
      return;
    }
    WaitLocked(
        lock, milliseconds, [] { return false; }, cancelled);
  }
  if (cancelled) EndThisThread();
}

extern "C" DWORD GetTickCount(void) {
  auto now = Clock::now().time_since_epoch();
  return static_cast<DWORD>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

extern "C" HANDLE CreateEvent(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState,
                              LPCWSTR name) {
  return CreateNamed<EventObject>(name, Kind::Event, [&](EventObject& e, bool) {
    e.manualReset = manualReset != FALSE;
    e.signaled = initialState != FALSE;
  });
}

extern "C" HANDLE OpenEvent(DWORD, BOOL, LPCWSTR name) {
  if (!name || !*name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(NamesLock());
  auto it = Names().find(name);
  std::shared_ptr<SyncObject> existing = it == Names().end() ? nullptr : it->second.lock();
  if (!existing || existing->kind != Kind::Event) {
    SetLastError(existing ? ERROR_INVALID_HANDLE : ERROR_FILE_NOT_FOUND);
    return nullptr;
  }
  return AddHandle(existing);
}

extern "C" BOOL SetEvent(HANDLE event) {
  auto e = Lookup<EventObject>(event, Kind::Event);
  if (!e) return FALSE;
  std::lock_guard<std::mutex> guard(SyncLock());
  e->signaled = true;
  SyncCondition().notify_all();
  return TRUE;
}

extern "C" BOOL ResetEvent(HANDLE event) {
  auto e = Lookup<EventObject>(event, Kind::Event);
  if (!e) return FALSE;
  std::lock_guard<std::mutex> guard(SyncLock());
  e->signaled = false;
  return TRUE;
}

extern "C" HANDLE CreateMutex(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCWSTR name) {
  std::shared_ptr<ThreadRec> me = Self();
  return CreateNamed<MutexObject>(name, Kind::Mutex, [&](MutexObject& m, bool) {
    if (initialOwner) {
      m.owner = me;
      m.depth = 1;
    }
  });
}

extern "C" HANDLE CreateSemaphore(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount,
                                  LPCWSTR name) {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return CreateNamed<SemaphoreObject>(name, Kind::Semaphore, [&](SemaphoreObject& s, bool) {
    s.count = initialCount;
    s.maximum = maximumCount;
  });
}

namespace winux {
// A process handle is acquired when the process has gone (process.cpp).
bool ProcessHandleEnded(const std::shared_ptr<Object>& object);
}  // namespace winux

extern "C" DWORD WinuxWaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  std::shared_ptr<Object> object = LookupAnyHandle(handle);
  if (!object) return WAIT_FAILED;
  std::shared_ptr<ThreadRec> me = Self();
  bool cancelled = false;
  bool acquired = false;
  {
    std::unique_lock<std::mutex> lock(SyncLock());
    switch (object->kind) {
      case Kind::Event: {
        auto* e = static_cast<EventObject*>(object.get());
        acquired = WaitLocked(
            lock, milliseconds, [&] { return e->signaled; }, cancelled);
        if (acquired && !e->manualReset) e->signaled = false;
        break;
      }
      case Kind::Mutex: {
        auto* m = static_cast<MutexObject*>(object.get());
        acquired = WaitLocked(
            lock, milliseconds, [&] { return MutexAvailable(*m, me); }, cancelled);
        if (acquired) {
          if (m->owner != me) {
            m->owner = me;
            m->depth = 0;
          }
          ++m->depth;
        }
        break;
      }
      case Kind::Semaphore: {
        auto* s = static_cast<SemaphoreObject*>(object.get());
        acquired = WaitLocked(
            lock, milliseconds, [&] { return s->count > 0; }, cancelled);
        if (acquired) --s->count;
        break;
      }
      case Kind::Thread: {
        auto* t = static_cast<ThreadObject*>(object.get());
        acquired = WaitLocked(
            lock, milliseconds, [&] { return t->rec->ended; }, cancelled);
        break;
      }
      case Kind::Process:
        acquired = WaitLocked(
            lock, milliseconds, [&] { return ProcessHandleEnded(object); }, cancelled, true);
        break;
      default:
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
  }
  if (cancelled) EndThisThread();
  return acquired ? WINUX_WAIT_ACQUIRED : WAIT_TIMEOUT;
}

extern "C" BOOL WinuxReleaseSemaphore(HANDLE handle, LONG count, LPLONG previousCount) {
  std::shared_ptr<Object> object = LookupAnyHandle(handle);
  if (!object) return FALSE;
  std::lock_guard<std::mutex> guard(SyncLock());
  if (object->kind == Kind::Mutex) {
    auto* m = static_cast<MutexObject*>(object.get());
    if (m->owner != Self() || m->depth <= 0) {
      SetLastError(kErrorNotOwner);
      return FALSE;
    }
    if (previousCount) *previousCount = m->depth;
    if (--m->depth == 0) m->owner.reset();
    SyncCondition().notify_all();
    return TRUE;
  }
  if (object->kind != Kind::Semaphore) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  auto* s = static_cast<SemaphoreObject*>(object.get());
  if (count <= 0 || count > s->maximum - s->count) {
    SetLastError(count <= 0 ? ERROR_INVALID_PARAMETER : kErrorTooManyPosts);
    return FALSE;
  }
  if (previousCount) *previousCount = s->count;
  s->count += count;
  SyncCondition().notify_all();
  return TRUE;
}
