#pragma once

// Hostile texts, made from the form of what they pretend to be. Half of them are right in every field; the
// others have wrong fields here and there, and bytes and lines changed, moved or lost. The same seed makes
// the same texts with every compiler.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>

namespace talvex::test {

// How a text looks: "%" and a letter stand for a field (see Field), everything else for itself.
struct TextForm {
  const char* head;
  const char* row;  // of which 1 to `row_limit` follow the head
  std::size_t row_limit;
  std::size_t size_limit;  // bytes
};

class InputGenerator {
 public:
  explicit InputGenerator(std::uint32_t seed) : random_(seed) {}

  [[nodiscard]] std::string Make(const TextForm& form);

 private:
  using Choices = std::initializer_list<const char*>;

  std::size_t Below(std::size_t bound) { return random_() % bound; }
  bool OneIn(std::size_t chances) { return Below(chances) == 0; }
  std::string Pick(Choices choices) { return choices.begin()[Below(choices.size())]; }
  std::string Either(Choices right, Choices wrong) { return Pick(Wrong() ? wrong : right); }
  bool Wrong() { return !honest_ && OneIn(8); }
  std::string Characters(std::size_t count, const std::string& set);
  void Expand(const std::string& form, std::string& text);
  std::string Field(char letter);
  std::string Digest();
  std::string Release();
  std::string Path();
  void Mutate(std::string& text);

  std::mt19937 random_;
  bool honest_ = true;
  bool many_rows_ = false;
  std::size_t row_ = 0;
};

}  // namespace talvex::test
