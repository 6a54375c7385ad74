#pragma once

#include <string>

namespace vnjs::host {

/// The source line at the first place `FILE:LINE:COLUMN` that the text of an error names, with its number, and a caret
/// under the column. Empty when there is none that can be read, and when the same place was shown last.
/// Any thread.
std::string Excerpt(const std::string& text);

/// Code that no file has: the places `NAME:LINE:COLUMN` mean this from now on.
void KeepSource(const std::string& name, const std::string& code);

}  // namespace vnjs::host
