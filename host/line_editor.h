#pragma once

#include <histedit.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "host/engine_view.h"

namespace vnjs::host {

/// Lines typed at the terminal, with editing and a history.
///
/// Threads:  one thread reads; WriteLog is for any. The client's OnInterrupt is called on a thread of this object.
/// Signals:  from its construction on, SIGINT drops the line that is typed, SIGTERM and SIGHUP end the input; each is
///           also told to the client, until the next line is awaited. A second SIGTERM or SIGHUP ends the process.
///           One object per process.
class LineEditor {
 public:
  class Client {
   public:
    virtual ~Client() = default;

    /// Called again and again while a line is awaited, but not between an interrupt that came during it and the next
    /// line. False ends the input.
    virtual bool OnIdle() = 0;
    virtual void OnInterrupt() = 0;
    virtual Completion OnComplete(const std::string& text) = 0;
  };

  enum Answer { kLine, kDropped, kEnd };

  /// The history is kept in that file; nowhere, when the name is empty.
  LineEditor(Client* client, std::string historyFile);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  Answer Read(const std::string& prompt, std::string* line);

  /// Writes lines to standard error, above the line that is being typed.
  void WriteLog(const std::string& text);

 private:
  static LineEditor* Of(EditLine* edit);
  static int GetCharacter(EditLine* edit, wchar_t* character);
  static unsigned char OnTab(EditLine* edit, int key);
  bool InterruptAsAsked();
  bool Wait();
  void LetOthersWrite();
  void Erase();
  void List(const Completion& found);

  Client* const m_client;
  const std::string m_historyFile;
  std::string m_prompt;
  const std::unique_ptr<History, decltype(&history_end)> m_history;
  const std::unique_ptr<EditLine, decltype(&el_end)> m_edit;
  std::atomic<bool> m_done{false};
  std::mutex m_interruptMutex;
  std::thread m_interrupter;
  bool m_holdsWork = false;

  /// The screen, and how far others may use it: during kEditing they may not.
  std::mutex m_mutex;
  enum { kElsewhere, kEditing, kWaiting } m_state = kElsewhere;
  bool m_erased = false;
  std::string m_held;
};

}  // namespace vnjs::host
