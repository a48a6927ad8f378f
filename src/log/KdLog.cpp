// The application log: the session (rotation, header, the global switch) and
// the serial writer.
//
// The writer is one thread that owns the file descriptor. Callers format on
// their own thread and hand the text over through a mutex-guarded queue; flush,
// a new log and the end of the log travel through the same queue as messages,
// so every file operation happens on the writer thread in queue order.
#include "log/KdLog.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <typeinfo>

#include <cxxabi.h>

#include "common/AtomicFile.h"
#include "common/DateText.h"
#include "common/Folders.h"
#include "common/Path.h"
#include "common/PropertyList.h"
#include "common/ThreadAnnotations.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "log/KdLogTesting.h"
#include "paths/KdLocalPaths.h"
#include "paths/UserFiles.h"

namespace {

// The process's main thread: static initialisation runs there, before main().
// Lines from any other thread may wait for the writer (see appendFormatted).
const std::thread::id gMainThread = std::this_thread::get_id();

// Set on the writer thread, where waiting for the queue would wait for itself.
thread_local bool tOnWriterThread = false;

// Set in a child made by fork() without exec: it has no writer thread, and the
// queue's lock may have been held at the fork, so the log goes silent there.
std::atomic<bool> gInForkedChild{false};

constexpr std::uint64_t kRollOverBytes = 500000;
constexpr std::size_t kShortLineUnits = 100;
constexpr std::size_t kCancelThreshold = 11;
// Lines of one batch are gathered and written together up to this size.
constexpr std::size_t kWriteChunk = 64 * 1024;

constexpr const char* kGlobalPrefsFile = "com.quillfen.global.plist";
constexpr const char* kLogFolderName = "Quillfen";

// Messages about the log itself go to standard output, never into the log.
void printToStdout(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Whether the log's own troubles are printed (KdLog::setPrintsOwnTroubles).
std::atomic<bool> gPrintsOwnTroubles{true};

void printTrouble(std::string_view text) {
  if (gPrintsOwnTroubles.load(std::memory_order_relaxed)) printToStdout(text);
}

bool isSpaceOrLineEnd(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// Removes white space and line ends (Unicode's, as the system counts them)
// from both ends.
void trimInPlace(std::string& s) {
  std::size_t begin = 0;
  char32_t c = 0;
  while (begin < s.size()) {
    const std::size_t len = kd::utf8::decodeAt(s, begin, c);
    if (len == 0 || !isSpaceOrLineEnd(c)) break;
    begin += len;
  }
  std::size_t end = s.size();
  while (end > begin) {
    const std::size_t len = kd::utf8::decodeBefore(s, end, c);
    if (len == 0 || end - len < begin || !isSpaceOrLineEnd(c)) break;
    end -= len;
  }
  s.erase(end);
  s.erase(0, begin);
}

bool pathExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string demangledName(const char* mangled) {
  int status = 0;
  char* d = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = status == 0 && d ? d : mangled;
  std::free(d);
  return name;
}

std::terminate_handler gPreviousTerminate = nullptr;

// Logs the reason of an uncaught exception so that it reaches the file before
// the process ends, then lets the previous handler report and abort.
[[noreturn]] void onTerminate() {
  if (std::exception_ptr e = std::current_exception()) {
    std::string reason;
    try {
      std::rethrow_exception(e);
    } catch (const std::exception& ex) {
      reason = ex.what();
    } catch (...) {
      const std::type_info* t = abi::__cxa_current_exception_type();
      reason = t ? demangledName(t->name()) : "unknown exception";
    }
    KdLog::appendLogAndPrint(reason);
    KdLog::finishWriting();
  }
  if (gPreviousTerminate) gPreviousTerminate();
  std::abort();
}

}  // namespace

// One queued operation. A line carries its text only; a flush, a new log or
// the end of the log carries a control block whose promise the writer keeps
// once the operation is done (lines stay cheap to queue).
struct LogOp {
  struct Control {
    std::function<void()> call;  // none for a plain flush
    std::promise<void> done;
    bool survivesCancel = false;  // the end of the log itself is never cancelled
  };
  std::string text;
  std::size_t units = 0;  // a line's share of bytesInQueue
  std::unique_ptr<Control> control;
};

// The singleton's state. Fields under `mu` are shared with callers; fields
// marked "writer" are touched only on the writer thread (or while it is known
// to be idle, by the test reset); atomics may be read anywhere.
struct KdLog::Impl {
  KdLog& log;

  kd::Mutex mu;
  std::condition_variable wake;
  std::vector<LogOp> queue KD_GUARDED_BY(mu);
  bool writerWaiting KD_GUARDED_BY(mu) = false;
  bool ended KD_GUARDED_BY(mu) = false;  // willTerminate ran; lines go nowhere

  std::atomic<bool> cancelRunningBatch{false};
  std::atomic<std::size_t> outstanding{0};  // queued plus running operations
  std::atomic<std::uint64_t> bytesWritten{0};
  std::atomic<std::uint64_t> bytesInQueue{0};
  std::atomic<bool> disabled{false};

  mutable kd::Mutex nameMu;
  std::optional<std::string> appName KD_GUARDED_BY(nameMu);

  // writer
  kd::UniqueFd fd;
  std::vector<LogOp> local;  // lines the writer queued itself (header, roll-over)
  std::string pending;       // bytes of this batch not yet written
  std::uint64_t pendingUnits = 0;
  // A failed write (a full disk) may leave the file ending inside a line; the
  // next write starts a line of its own.
  bool lineTorn = false;
  std::time_t dateSecond = -1;
  std::string dateText;
  std::function<void(const std::string&)> beforeRemovingOldest;  // tests only

  explicit Impl(KdLog& owner) : log(owner) {}

  void run();
  void runOp(LogOp& op);
  void writeLine(const std::string& text, std::size_t units);
  void writePending();
  void createNewLog(const std::optional<std::string>& name);
  bool openCurrentLog();
  void discard(LogOp& op);
  const std::string& now();

  // Posts an operation that waits for everything queued before it.
  void postAndWait(std::function<void()> call, bool survivesCancel = false);
};

namespace {

std::optional<std::string> logFolder() {
  return kd::path::append(KdLocalPaths::logDirectory(true), kLogFolderName);
}

// As root the current file lies in the machine's log folder while rotation
// happens in the user's folder; kept so that both places stay where they were.
std::optional<std::string> currentLogPath(const std::optional<std::string>& name) {
  std::optional<std::string> folder =
      KdLocalPaths::isRoot() ? kd::path::append(KdLocalPaths::logDirectory(false), kLogFolderName)
                             : logFolder();
  if (!folder) return std::nullopt;
  return kd::format("%@/%@.1.log", *folder, name);
}

}  // namespace

KdLog& KdLog::sharedController() {
  static KdLog* const instance = new KdLog();
  return *instance;
}

KdLog::KdLog() : impl_(*new Impl(*this)) {
  // The platform outlives the log (it is never destroyed either); asking for
  // it now keeps that true for lines written while the process exits.
  (void)kd::platform();
  std::thread([this] {
    tOnWriterThread = true;
#ifdef SCHED_BATCH
    sched_param param{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &param);
#endif
    impl_.run();
  }).detach();
  gPreviousTerminate = std::set_terminate(onTerminate);
  pthread_atfork(nullptr, nullptr, [] { gInForkedChild.store(true, std::memory_order_relaxed); });
  // The system tells a terminating application to end its log; a process
  // here ends through exit(), where everything queued is written.
  std::atexit([] { KdLog::finishWriting(); });
}

void KdLog::Impl::run() {
  std::vector<LogOp> batch;
  for (;;) {
    {
      kd::MutexLock lock(mu);
      while (queue.empty()) {
        writerWaiting = true;
        lock.wait(wake);
      }
      writerWaiting = false;
      batch.swap(queue);
    }
    for (LogOp& op : batch) {
      if (cancelRunningBatch.load() && !(op.control && op.control->survivesCancel)) {
        discard(op);
      } else {
        runOp(op);
        // What the operation queued itself (a header, the roll-over line)
        // comes right after it, before anything other threads queued.
        for (std::size_t i = 0; i < local.size(); ++i) {
          LogOp next = std::move(local[i]);
          runOp(next);
        }
        local.clear();
      }
      outstanding.fetch_sub(1);
    }
    writePending();
    batch.clear();
  }
}

void KdLog::Impl::runOp(LogOp& op) {
  if (!op.control) return writeLine(op.text, op.units);
  writePending();
  if (op.control->call) {
    op.control->call();
    writePending();
  }
  op.control->done.set_value();
}

void KdLog::Impl::discard(LogOp& op) {
  if (op.control) {
    op.control->done.set_value();
  } else {
    bytesInQueue.fetch_sub(op.units);
  }
}

const std::string& KdLog::Impl::now() {
  std::time_t t = std::time(nullptr);
  if (t != dateSecond) {
    dateSecond = t;
    dateText = kd::dateDescription(static_cast<kd::DateSeconds>(t));
  }
  return dateText;
}

bool KdLog::Impl::openCurrentLog() {
  std::optional<std::string> path = currentLogPath(log.appNameIfAny());
  if (!path) return false;
  // No O_CREAT: only a log that createNewLog made is written to.
  int f = kd::retryOnEintr(
      [&] { return ::open(path->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY); });
  if (f < 0) return false;
  fd.reset(f);
  return true;
}

void KdLog::Impl::writeLine(const std::string& text, std::size_t units) {
  if (disabled.load()) {
    bytesInQueue.fetch_sub(units);
    return;
  }
  if (!fd && !openCurrentLog()) {
    if (!disabled.load()) {
      printTrouble(kd::format("Unable to log the following information: %s\n", text));
      printTrouble("Unable to open log for output\n");
    }
    bytesInQueue.fetch_sub(units);
    return;
  }
  const std::string& date = now();
  const std::size_t before = pending.size();
  pending.append(date).append(" - ").append(text).append("\n");
  pendingUnits += units;
  bytesWritten.fetch_add(pending.size() - before);
  if (pending.size() >= kWriteChunk) writePending();
  if (bytesWritten.load() >= kRollOverBytes) {
    writePending();
    // finishWriting returns at once on the writer: everything queued before
    // this line has been written already.
    KdLog::finishWriting();
    createNewLog(log.appNameIfAny());
    KdLog::appendLog("Log truncated at 500KB");
  }
}

void KdLog::Impl::writePending() {
  if (pending.empty()) return;
  if (lineTorn && fd) pending.insert(0, 1, '\n');
  std::string_view rest = pending;
  while (!rest.empty()) {
    ssize_t n = fd ? ::write(fd.get(), rest.data(), rest.size()) : (errno = EBADF, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // The lines of this chunk are lost; they stay counted as queued.
      if (!disabled.load())
        printTrouble(kd::format("Exception writing to log: %s\n", std::strerror(errno)));
      const std::size_t written = pending.size() - rest.size();
      if (written > 0) lineTorn = pending[written - 1] != '\n';
      pending.clear();
      pendingUnits = 0;
      return;
    }
    rest.remove_prefix(static_cast<std::size_t>(n));
  }
  lineTorn = false;
  pending.clear();
  bytesInQueue.fetch_sub(pendingUnits);
  pendingUnits = 0;
}

void KdLog::Impl::createNewLog(const std::optional<std::string>& name) {
  if (disabled.load()) return;
  writePending();
  fd.reset();

  std::optional<std::string> prefs = KdLocalPaths::prefsDirectory(true);
  if (prefs) {
    kd::PlistDict global =
        kd::readPlistDictionaryOrEmpty(kd::path::append(*prefs, kGlobalPrefsFile));
    if (kd::plistFlagIsSet(global, "disable-logging")) {
      printTrouble("Logging is disabled\n");
      disabled.store(true);
      return;
    }
  }

  // A name given here counts only when the program has no executable name.
  if (name && !log.appNameIfAny()) log.setAppName(name);
  bytesWritten.store(0);
  std::optional<std::string> appName = log.appNameIfAny();
  if (!appName || appName->empty()) {
    appName = "Unknown";
    log.setAppName(appName);
  }

  std::optional<std::string> folder = logFolder();
  std::optional<std::string> current = currentLogPath(appName);
  // Private to the user, and the user's own even when a root run makes it. A
  // root run rotates files only in a folder that is the user's own: a link
  // the user placed there cannot make root move or remove files elsewhere.
  const std::optional<kd::FileOwner> owner = folder ? kd::ownerForUserPath(*folder) : std::nullopt;
  struct stat folderStat {};
  if (!folder || !kd::createFolders(*folder, 0700, owner) ||
      (owner && (::stat(folder->c_str(), &folderStat) != 0 || folderStat.st_uid != owner->uid))) {
    printTrouble(kd::format("Unable to create folder %s.\n", folder));
    return;
  }

  if (current && pathExists(*current)) {
    const std::string oldest = kd::format("%@/%@.5.log", *folder, appName);
    if (pathExists(oldest)) {
      if (beforeRemovingOldest) beforeRemovingOldest(oldest);
      ::unlink(oldest.c_str());
    }
    for (long i = 4; i >= 1; --i) {
      const std::string from = kd::format("%@/%@.%li.log", *folder, appName, i);
      if (!pathExists(from)) continue;
      const std::string to = kd::format("%@/%@.%li.log", *folder, appName, i + 1);
      // A move never replaces a file (the .5 file may have refused to go).
      if (pathExists(to) || ::rename(from.c_str(), to.c_str()) != 0) {
        printTrouble(kd::format("Unable to move file %s to %s.\n", from, to));
        return;
      }
    }
  }

  const kd::Result<void> created =
      current ? kd::writeFileAtomically(*current, "", kd::ownerForUserPath(*current))
              : kd::Error::described("no log folder");
  if (!created) {
    printTrouble(
        kd::format("Unable to create log file %s - %s\n", current, created.error().message()));
    return;
  }
  int f = kd::retryOnEintr(
      [&] { return ::open(current->c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY); });
  if (f < 0) return;
  fd.reset(f);
  lineTorn = false;  // a new, empty file

  kd::Platform& os = kd::platform();
  kd::BundleInfo bundle = os.mainBundle();
  KdLog::fastAppendLog("Log started: %@\n", now());
  if (bundle.version) KdLog::fastAppendLog("Version: %@\n", *bundle.version);
  if (bundle.executablePath) KdLog::fastAppendLog("Path: %@\n", *bundle.executablePath);
  const double gigabytes =
      static_cast<double>(os.physicalMemory()) * 0.0009765625 * 0.0009765625 * 0.0009765625;
  KdLog::appendLog("System: %@ %@, %li CPU(s), %0.2f GB RAM\n", os.osName(), os.osVersionString(),
                   os.processorCount(), gigabytes);
  KdLog::fastAppendLog("Running in 64-bit mode\n");
}

void KdLog::Impl::postAndWait(std::function<void()> call, bool survivesCancel) {
  if (gInForkedChild.load(std::memory_order_relaxed)) return;
  LogOp op;
  op.control = std::make_unique<LogOp::Control>();
  op.control->call = std::move(call);
  op.control->survivesCancel = survivesCancel;
  std::future<void> done = op.control->done.get_future();
  bool notify;
  {
    kd::MutexLock lock(mu);
    outstanding.fetch_add(1);
    queue.push_back(std::move(op));
    notify = std::exchange(writerWaiting, false);
  }
  if (notify) wake.notify_one();
  done.wait();
}

void KdLog::enqueueLine(std::string text) {
  if (gInForkedChild.load(std::memory_order_relaxed)) return;
  trimInPlace(text);
  if (text.empty()) return;
  LogOp op;
  op.units = kd::utf8::utf16Length(text);
  op.text = std::move(text);
  if (tOnWriterThread) {
    impl_.bytesInQueue.fetch_add(op.units);
    impl_.local.push_back(std::move(op));
    return;
  }
  bool notify;
  {
    kd::MutexLock lock(impl_.mu);
    if (impl_.ended) return;
    impl_.bytesInQueue.fetch_add(op.units);
    impl_.outstanding.fetch_add(1);
    impl_.queue.push_back(std::move(op));
    notify = std::exchange(impl_.writerWaiting, false);
  }
  if (notify) impl_.wake.notify_one();
}

void KdLog::appendTextToLog(std::string_view text) {
  enqueueLine(std::string(text));
}

bool KdLog::acceptsLines() {
  return !sharedController().impl_.disabled.load();
}

void KdLog::appendFormatted(std::string text, bool mayWait) {
  KdLog& log = sharedController();
  const std::size_t units = kd::utf8::utf16Length(text);
  log.enqueueLine(std::move(text));
  // A short line from a background thread is written before the call returns
  // while the backlog is small, so that it is on disk if the thread's work
  // brings the process down.
  if (mayWait && std::this_thread::get_id() != gMainThread && units >= 1 &&
      units < kShortLineUnits && log.bytesInQueue() < kShortLineUnits) {
    finishWriting();
  }
}

void KdLog::createNewLog(std::optional<std::string> name) {
  KdLog& log = sharedController();
  if (log.impl_.disabled.load()) return;
  if (tOnWriterThread) {
    log.impl_.createNewLog(name);
    return;
  }
  {
    kd::MutexLock lock(log.impl_.mu);
    if (log.impl_.ended) return;
  }
  log.impl_.postAndWait([&log, name] { log.impl_.createNewLog(name); });
}

void KdLog::setPrintsOwnTroubles(bool print) {
  gPrintsOwnTroubles.store(print, std::memory_order_relaxed);
}

void KdLog::finishWriting() {
  if (tOnWriterThread) return;
  sharedController().impl_.postAndWait(nullptr);
}

void KdLog::willTerminate() {
  if (gInForkedChild.load(std::memory_order_relaxed)) return;
  KdLog& log = sharedController();
  Impl& impl = log.impl_;
  auto end = [&impl] {
    impl.writePending();
    impl.fd.reset();
    impl.cancelRunningBatch.store(false);
  };
  if (tOnWriterThread) {
    kd::MutexLock lock(impl.mu);
    impl.ended = true;
  } else {
    std::vector<LogOp> cancelled;
    {
      kd::MutexLock lock(impl.mu);
      impl.ended = true;
      // A long backlog at termination is dropped rather than keep the system
      // waiting; a short one is written.
      if (impl.outstanding.load() >= kCancelThreshold) {
        cancelled.swap(impl.queue);
        impl.cancelRunningBatch.store(true);
      }
    }
    for (LogOp& op : cancelled) {
      impl.discard(op);
      impl.outstanding.fetch_sub(1);
    }
  }
  if (tOnWriterThread) {
    end();
  } else {
    impl.postAndWait(end, /*survivesCancel=*/true);
  }
  log.setAppName(std::nullopt);
}

std::string KdLog::escapeTextForLogging(std::string_view text) {
  std::string s(text);
  // Most formats hold only plain conversions, which no step changes.
  bool changes = false;
  for (std::size_t i = s.find('%'); i != std::string::npos && !changes; i = s.find('%', i + 1)) {
    changes = i + 1 < s.size() && (std::strchr(" .!,-;:+", s[i + 1]) != nullptr ||
                                   (s[i + 1] == '%' && i + 2 < s.size() && s[i + 2] == '%'));
  }
  if (!changes) return s;
  static constexpr std::pair<std::string_view, std::string_view> kSteps[] = {
      {"% ", "%% "}, {"%.", "%%."}, {"%!", "%%!"}, {"%,", "%%,"}, {"%-", "%%-"},
      {"%;", "%%;"}, {"%:", "%%:"}, {"%+", "%%+"}, {"%%%", "%%"},
  };
  for (const auto& [from, to] : kSteps) {
    std::size_t hit = s.find(from);
    if (hit == std::string::npos) continue;
    std::string out;
    out.reserve(s.size() + 8);
    std::size_t i = 0;
    for (; hit != std::string::npos; i = hit + from.size(), hit = s.find(from, i)) {
      out.append(s, i, hit - i).append(to);
    }
    out.append(s, i);
    s.swap(out);
  }
  return s;
}

std::vector<std::string> KdLog::availableLogs() {
  std::vector<std::string> logs;
  std::optional<std::string> folder = logFolder();
  std::optional<std::string> name = sharedController().appNameIfAny();
  for (long i = 1; i <= 5; ++i) {
    std::string path = kd::format("%@/%@.%li.log", folder, name, i);
    if (pathExists(path)) logs.push_back(std::move(path));
  }
  return logs;
}

void KdLog::appendAndPrint(std::string text, bool print) {
  trimInPlace(text);
  // The line is formatted a second time: a "%" that came in through an
  // argument is read as a conversion, which prints literally for lack of an
  // argument.
  appendLog(text);
  if (!print) return;
  std::string copy;
  copy.reserve(text.size() + 8);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "%@") == 0) {
      ++i;
    } else if (text[i] == '%') {
      copy += "%%";
    } else if (text[i] != '\0') {
      copy += text[i];
    }
  }
  copy += '\n';
  printToStdout(copy);
}

std::string KdLog::appName() const {
  return appNameIfAny().value_or("");
}

std::optional<std::string> KdLog::appNameIfAny() const {
  {
    kd::MutexLock lock(impl_.nameMu);
    if (impl_.appName) return impl_.appName;
  }
  std::optional<std::string> exe = kd::platform().mainBundle().executablePath;
  if (!exe) return std::nullopt;
  std::string name = kd::path::lastComponent(*exe);
  if (auto dot = name.rfind('.'); dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

void KdLog::setAppName(std::optional<std::string> name) {
  kd::MutexLock lock(impl_.nameMu);
  impl_.appName = std::move(name);
}

std::uint64_t KdLog::bytesWritten() const {
  return impl_.bytesWritten.load();
}
std::uint64_t KdLog::bytesInQueue() const {
  return impl_.bytesInQueue.load();
}
bool KdLog::loggingDisabled() const {
  return impl_.disabled.load();
}

void KdLogTestAccess::reset() {
  KdLog& log = KdLog::sharedController();
  KdLog::Impl& impl = log.impl_;
  {
    kd::MutexLock lock(impl.mu);
    impl.ended = false;
  }
  impl.postAndWait([&impl] {
    impl.writePending();
    impl.fd.reset();
    impl.lineTorn = false;
    impl.cancelRunningBatch.store(false);
    impl.disabled.store(false);
    impl.bytesWritten.store(0);
    impl.bytesInQueue.store(0);
    impl.dateSecond = -1;
    impl.beforeRemovingOldest = nullptr;
  });
  log.setAppName(std::nullopt);
}

void KdLogTestAccess::setBeforeRemovingOldest(std::function<void(const std::string&)> hook) {
  KdLog::Impl& impl = KdLog::sharedController().impl_;
  impl.postAndWait([&impl, &hook] { impl.beforeRemovingOldest = std::move(hook); });
}
