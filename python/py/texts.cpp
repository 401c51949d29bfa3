#include "py/texts.h"

namespace tessaly::py {

void TextPool::place(Entry entry) noexcept {
  std::size_t i = slot_of(entry.text);
  while (entries_[i].text != nullptr) i = (i + 1) & (entries_.size() - 1);
  entries_[i] = entry;
}

Handle TextPool::add(const Text& text) {
  if (2 * (used_ + 1) > entries_.size()) {
    std::vector<Entry> larger(entries_.empty() ? 32 : 2 * entries_.size());
    entries_.swap(larger);
    for (const Entry& entry : larger)
      if (entry.text != nullptr) place(entry);
  }
  Owned object = Owned::steal(PyUnicode_FromString(text.utf8));
  const Handle handle = object;
  place({&text, object.release()});
  ++used_;
  return handle;
}

void TextPool::clear() noexcept {
  std::vector<Entry> old;
  old.swap(entries_);
  used_ = 0;
  for (Entry& entry : old)
    if (entry.object != nullptr) drop(Owned::steal(entry.object));
}

}  // namespace tessaly::py
