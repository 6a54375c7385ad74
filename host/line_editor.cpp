#include "host/line_editor.h"

#include <poll.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <utility>

namespace vnjs::host {
namespace {

constexpr int kHistoryLength = 1000;
constexpr int kStepMilliseconds = 10;

/// More lines that come while a key is at work spoil the screen: the key may wait for the script that writes them.
constexpr size_t kMostHeld = 1 << 20;

std::atomic<bool> interrupted{false};
std::atomic<bool> ended{false};
std::atomic<bool> screenChanged{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler writes them");
sem_t asked;

extern "C" void OnSignal(int signal) {
  const int error = errno;
  if (signal == SIGCONT || signal == SIGWINCH) {
    screenChanged = true;
  } else {
    (signal == SIGINT ? interrupted : ended) = true;
    // What cannot be interrupted still ends when it is told so once more.
    if (signal != SIGINT) std::signal(signal, SIG_DFL);
    // Fails on a terminal that went away.
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, "\n", 1);
    sem_post(&asked);
  }
  errno = error;
}

int Columns() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

int Width(const wchar_t* begin, const wchar_t* end) {
  return std::max(0, wcswidth(begin, static_cast<size_t>(end - begin)));
}

}  // namespace

LineEditor::LineEditor(Client* client, std::string historyFile)
    : m_client(client),
      m_historyFile(std::move(historyFile)),
      m_history(history_init(), history_end),
      // Scripts are UTF-8 wherever the user comes from.
      m_edit((setlocale(LC_CTYPE, "C.UTF-8"), el_init("vnjs", stdin, stdout, stderr)), el_end) {
  HistEvent event{};
  history(m_history.get(), &event, H_SETSIZE, kHistoryLength);
  history(m_history.get(), &event, H_SETUNIQUE, 1);
  if (!m_historyFile.empty()) history(m_history.get(), &event, H_LOAD, m_historyFile.c_str());

  EditLine* const edit = m_edit.get();
  el_set(edit, EL_CLIENTDATA, this);
  el_set(edit, EL_EDITOR, "emacs");
  el_set(edit, EL_PROMPT,
         static_cast<char* (*)(EditLine*)>([](EditLine* e) { return Of(e)->m_prompt.data(); }));
  el_set(edit, EL_HIST, history, m_history.get());
  el_set(edit, EL_GETCFN, &GetCharacter);
  el_set(edit, EL_ADDFN, "vnjs-complete", "Complete a name", &OnTab);
  el_set(edit, EL_BIND, "^I", "vnjs-complete", nullptr);
  el_set(edit, EL_BIND, "^R", "em-inc-search-prev", nullptr);
  el_source(edit, nullptr);

  sem_init(&asked, 0, 0);
  m_interrupter = std::thread([this] {
    for (;;) {
      while (sem_wait(&asked) != 0) {
      }
      // Again and again: when one callback has ended, the next may be one that does not.
      while (InterruptAsAsked()) std::this_thread::sleep_for(std::chrono::milliseconds(kStepMilliseconds));
      if (m_done) return;
    }
  });
  struct sigaction action {};
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCONT, SIGWINCH}) sigaction(signal, &action, nullptr);
}

LineEditor::~LineEditor() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCONT, SIGWINCH}) std::signal(signal, SIG_DFL);
  m_done = true;
  sem_post(&asked);
  m_interrupter.join();
  HistEvent event{};
  if (!m_historyFile.empty()) history(m_history.get(), &event, H_SAVE, m_historyFile.c_str());
}

/// False when nobody asks for it any more: a line that is read later is not to be hit.
bool LineEditor::InterruptAsAsked() {
  const std::lock_guard<std::mutex> lock(m_interruptMutex);
  if (m_done || (!interrupted && !ended)) return false;
  m_client->OnInterrupt();
  return true;
}

LineEditor::Answer LineEditor::Read(const std::string& prompt, std::string* line) {
  m_prompt = prompt;
  {
    const std::lock_guard<std::mutex> lock(m_interruptMutex);
    interrupted = false;
  }
  el_resize(m_edit.get());
  int length = 0;
  const char* const text = ended ? nullptr : el_gets(m_edit.get(), &length);
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    fputs(std::exchange(m_held, {}).c_str(), stderr);
    m_erased = false;
    m_state = kElsewhere;
  }
  if (text == nullptr || length <= 0) {
    if (interrupted && !ended) return kDropped;
    // What comes next on the terminal is not ours.
    printf("\n");
    return kEnd;
  }
  m_holdsWork = false;
  HistEvent event{};
  if (*text != '\n') history(m_history.get(), &event, H_ENTER, text);
  *line = text;
  if (line->back() == '\n') line->pop_back();
  return kLine;
}

void LineEditor::WriteLog(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_state == kEditing && m_held.size() < kMostHeld) {
    m_held += text;
    return;
  }
  if (m_state == kWaiting) Erase();
  if (m_state == kEditing) fputs(std::exchange(m_held, {}).c_str(), stderr);
  // In one call, so that lines of several threads do not mix. Nobody could be told of a failure.
  fwrite(text.data(), 1, text.size(), stderr);
}

LineEditor* LineEditor::Of(EditLine* edit) {
  LineEditor* editor = nullptr;
  el_get(edit, EL_CLIENTDATA, &editor);
  return editor;
}

int LineEditor::GetCharacter(EditLine* edit, wchar_t* character) {
  mbstate_t state{};
  for (;;) {
    if (!Of(edit)->Wait()) return -1;
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != 1) return 0;
    const bool isFirst = mbsinit(&state) != 0;
    size_t length = mbrtowc(character, &byte, 1, &state);
    if (length == static_cast<size_t>(-1)) {
      state = {};
      // What does not go on with a character may begin the next.
      if (!isFirst) length = mbrtowc(character, &byte, 1, &state);
      if (length == static_cast<size_t>(-1)) state = {};
    }
    if (length <= 1) return 1;
  }
}

/// Until there is something to read.
bool LineEditor::Wait() {
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  for (;;) {
    LetOthersWrite();
    const bool wasInterrupted = interrupted;
    const bool goesOn = m_holdsWork || m_client->OnIdle();
    // Work that had to be interrupted may come again at once, and nobody could type what ends it.
    m_holdsWork |= !wasInterrupted && interrupted;
    const bool ready = poll(&input, 1, kStepMilliseconds) > 0;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_state = kEditing;
    }
    if (!goesOn || interrupted || ended) return false;
    if (screenChanged.exchange(false)) {
      // Whoever had the terminal while this process was stopped may have set it up anew.
      el_set(m_edit.get(), EL_PREP_TERM, 0);
      el_set(m_edit.get(), EL_PREP_TERM, 1);
      Erase();
      el_resize(m_edit.get());
    }
    if (std::exchange(m_erased, false)) el_set(m_edit.get(), EL_REFRESH);
    if (ready) return true;
  }
}

void LineEditor::LetOthersWrite() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_state = kWaiting;
  if (m_held.empty()) return;
  Erase();
  fputs(std::exchange(m_held, {}).c_str(), stderr);
}

/// Takes the line off the screen, which may be several lines there, until it is drawn anew.
void LineEditor::Erase() {
  if (std::exchange(m_erased, true)) return;
  const LineInfoW* const line = el_wline(m_edit.get());
  const int above = (static_cast<int>(m_prompt.size()) + Width(line->buffer, line->cursor)) / Columns();
  if (above > 0) printf("\033[%dA", above);
  printf("\r\033[J");
  fflush(stdout);
}

unsigned char LineEditor::OnTab(EditLine* edit, int) {
  LineEditor* const editor = Of(edit);
  const LineInfo* const line = el_line(edit);
  const Completion found = editor->m_client->OnComplete({line->buffer, line->cursor});
  if (found.names.empty()) return CC_ERROR;
  const std::string& first = *found.names.begin();
  const std::string& last = *found.names.rbegin();
  // They are sorted, so what these two have in common all have.
  const auto end = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
  const std::string common(first.begin() + static_cast<std::ptrdiff_t>(found.typed), end);
  if (!common.empty()) return el_insertstr(edit, common.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
  if (found.names.size() > 1) editor->List(found);
  return CC_NORM;
}

/// Above the line that is typed.
void LineEditor::List(const Completion& found) {
  Erase();
  size_t width = 1;
  for (const std::string& name : found.names) width = std::max(width, name.size() + 2);
  const size_t perLine = std::max<size_t>(1, static_cast<size_t>(Columns()) / width);
  size_t count = 0;
  for (const std::string& name : found.names) {
    const bool isLast = ++count % perLine == 0 || count == found.names.size();
    printf("%s%s", name.c_str(), isLast ? "\n" : std::string(width - name.size(), ' ').c_str());
  }
  m_erased = false;
  el_set(m_edit.get(), EL_REFRESH);
}

}  // namespace vnjs::host
