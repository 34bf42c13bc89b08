#ifndef TOLM_REPORT_HTML_H_
#define TOLM_REPORT_HTML_H_

#include <string>
#include <vector>

namespace tolm::report {

/// @p text as HTML and XML have it between tags and in quoted attributes. What nobody could see or
/// what would change what stands around it is made visible: control characters and bytes that are
/// no UTF-8 become \xNN, marks that turn the direction of writing and the like \u{N}.
std::string EscapeMarkup(const std::string& text);

/// A document in HTML that is well-formed XML, too. Whatever text is put in stays text: there is no
/// way past EscapeMarkup() but Style(). Names of tags and attributes are the program's own.
class Html {
 public:
  struct Attribute {
    const char* name;
    std::string value;
  };
  using Attributes = std::vector<Attribute>;

  /// An element that is open as long as this object lives.
  class Element {
   public:
    Element(Html& html, const char* tag, const Attributes& attributes = {});
    ~Element();
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

   private:
    Html& html_;
    const char* tag_;
  };

  Html() = default;
  Html(const Html&) = delete;
  Html& operator=(const Html&) = delete;

  void Text(const std::string& text);
  /// A whole element with this text in it.
  void Put(const char* tag, const std::string& text) { Put(tag, {}, text); }
  void Put(const char* tag, const Attributes& attributes, const std::string& text);
  /// One that has nothing in it: "<br/>".
  void PutVoid(const char* tag, const Attributes& attributes = {});
  /// A text that is a constant of the program, as it is; it must have neither "<" nor "&".
  template <std::size_t size>
  void Style(const char (&css)[size]) {
    text_ += "<style>";
    text_.append(css, size - 1);
    text_ += "</style>\n";
  }

  /// All that was written, as a document of its own.
  std::string Document() const { return "<!DOCTYPE html>\n" + text_; }
  std::size_t Size() const { return text_.size(); }

 private:
  void Begin(const char* tag, const Attributes& attributes);

  std::string text_;
};

}  // namespace tolm::report

#endif  // TOLM_REPORT_HTML_H_
