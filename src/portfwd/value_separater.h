// Splits "key=value&key=value" texts.
#ifndef GX_PORTFWD_VALUE_SEPARATER_H
#define GX_PORTFWD_VALUE_SEPARATER_H

#include <map>
#include <string>
#include <vector>

// Returns `text` without the characters of `chars` (null: blank, tab, CR, LF) at its start, its end or both.
template <class Char>
std::basic_string<Char> trim_string_t(const std::basic_string<Char>& text, const Char* chars, bool left,
                                      bool right) {
  static constexpr Char kBlanks[] = {' ', '\t', '\r', '\n', 0};
  if (chars == nullptr) chars = kBlanks;
  const std::size_t begin = left ? text.find_first_not_of(chars) : 0;
  if (begin == std::basic_string<Char>::npos) return {};
  const std::size_t last = right ? text.find_last_not_of(chars) : text.size() - 1;
  if (last == std::basic_string<Char>::npos) return {};
  return text.substr(begin, last + 1 - begin);
}

// Keys are trimmed, values are not. An item without the key/value separator, including an empty item, is an
// untrimmed key with an empty value. A trailing separator adds nothing.
template <class Char>
class CValueSeparater_T {
 public:
  using String = std::basic_string<Char>;

  // A null text counts as empty.
  CValueSeparater_T(const Char* text, Char item_separator, Char value_separator) {
    if (text != nullptr) Separater(text, item_separator, value_separator);
  }

  // Adds the items of `text`.
  void Separater(const String& text, Char item_separator, Char value_separator) {
    std::size_t begin = 0;
    while (begin < text.size()) {
      const std::size_t end = text.find(item_separator, begin);
      Add(text.substr(begin, end - begin), value_separator);
      if (end == String::npos) return;
      begin = end + 1;
    }
  }

  // All keys, sorted, with repetitions.
  std::vector<String> Items() const {
    std::vector<String> keys;
    for (const auto& item : items_) keys.push_back(item.first);
    return keys;
  }

  // The first value of that key, or a shared empty text.
  const String& Value(const String& key) const {
    static const String null_val;
    const auto found = items_.lower_bound(key);
    return found != items_.end() && found->first == key ? found->second : null_val;
  }

 private:
  void Add(const String& item, Char value_separator) {
    const std::size_t middle = item.find(value_separator);
    if (middle == String::npos) {
      items_.emplace(item, String());
    } else {
      items_.emplace(trim_string_t<Char>(item.substr(0, middle), nullptr, true, true), item.substr(middle + 1));
    }
  }

  std::multimap<String, String> items_;
};

#endif  // GX_PORTFWD_VALUE_SEPARATER_H
