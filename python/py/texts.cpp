#include "py/texts.h"

#include <string>

namespace tessaly::py {

Owned TextPool::get(const Text& text, Handle columns, std::size_t marks) {
  Entry* entry = marks <= Text::kMostMarksKept ? &entries_[text.number_ + marks] : nullptr;
  if (entry != nullptr && !entry->text.empty() && columns.is(entry->columns))
    return Owned::borrow(entry->text);

  std::string placeholders;
  for (std::size_t i = 0; i < marks; ++i) placeholders += i == 0 ? "?" : ",?";
  const Owned spliced = columns.is_none() ? py::text("") : Owned::borrow(columns);
  Owned made = Owned::steal(PyUnicode_FromFormat("%s%U%s%s%s", text.head_, spliced.ptr(),
                                                 text.middle_, placeholders.c_str(), text.tail_));
  if (entry != nullptr) {
    entry->columns.set(Owned::borrow(columns));
    entry->text.set(Owned::borrow(made));
  }
  return made;
}

}  // namespace tessaly::py
