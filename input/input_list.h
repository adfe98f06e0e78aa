// The list file tells which input files a run reads, and in which order.
//
// Plain text, one entry per line. Lines end at "\n", the last one needs none. Empty lines are
// skipped; nothing is trimmed (a "\r" belongs to the name) and there are no comments. Paths are
// relative to the list file's directory D, a leading "/" notwithstanding:
//
//   a.bin       D/a.bin
//   in1:c.bin   in1:D/c.bin    named: "in1" is the model input that c.bin is for
//   :c.bin      D/:c.bin       a colon that comes first or last is part of the path
//   x:y:z.bin   x:D/y:z.bin    the name ends at the first colon
#ifndef QUILMRUN_INPUT_INPUT_LIST_H_
#define QUILMRUN_INPUT_INPUT_LIST_H_

#include <string>
#include <string_view>
#include <vector>

namespace quilmrun {

/// The entries of the list file `listPath`, in file order. A file that cannot be opened is reported
/// and gives an empty list.
std::vector<std::string> ReadInputList(const std::string& listPath);

/// The items between the commas of `text`. Empty items count, except after a comma at the very end;
/// an empty text has no items.
std::vector<std::string> SplitString(const std::string& text);

/// True when the first colon of `entry` is neither its first nor its last character.
bool HasInputName(std::string_view entry);

/// True when every entry is named and every name is one of `names`; true for no entries.
bool AllInputsNamed(const std::vector<std::string>& entries, const std::vector<std::string>& names);

/// Puts named entries into the order of `names`, the model's inputs, and strips the names. Every
/// block of names.size() consecutive entries is sorted on its own. Unless all entries are named
/// and fill whole blocks, the list stays as it is.
void GroupInputsByName(std::vector<std::string>& entries, const std::vector<std::string>& names);

}  // namespace quilmrun

#endif  // QUILMRUN_INPUT_INPUT_LIST_H_
