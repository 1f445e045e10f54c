// SPDX-License-Identifier: Apache-2.0

// What a program writes to its standard output and standard error.
//
// Arguments, names, paths and the texts of the system come from outside. A terminal would obey the escape
// sequences in them, so that everything but JSON is shown by way of `Printable`. All functions may be called
// from any thread; each text is handed to the system whole.
#pragma once

#include <string>
#include <string_view>

namespace skorra {

// Call it first in main, before anything opens a descriptor. It opens the closed ones among the descriptors
// 0, 1 and 2 on /dev/null: the next socket would take the number, and a report would go there. A standard
// output that was closed still fails each write. A reader that is gone, or a file that may not grow, becomes
// an error of the write instead of a signal that ends the process without a word.
void PrepareStandardStreams();

// `text` with each control character and each byte that is not UTF-8 as \xNN. One line stays one line.
std::string Printable(std::string_view text);

// Both write to standard output, `PrintText` by way of `Printable` except for line ends. When not everything
// could be written they say so on standard error and return false; the program's status is then kExitOutput.
bool PrintText(std::string_view text);
bool PrintJson(std::string_view text);

// Writes to standard error what is wrong, after the program's name, and on a line of its own what to do.
void PrintProblem(std::string_view what, std::string_view remedy = {});

// Writes a line of outside text, such as one of the log, to standard error. `before` is written as it is.
void PrintErrorLine(std::string_view line, std::string_view before = {});

// Writes to standard error as it is. What cannot be written is lost.
void WriteError(std::string_view text);

}  // namespace skorra
