// TalvexPublish.exe: everything that a release engineer does with a release, except signing it. It never sees
// the private key: openssl signs, where that key is kept, between the commands release and finish.

#include <windows.h>
// Needs windows.h first.
#include <shellapi.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/local_memory.h"
#include "core/memory_shortage.h"
#include "core/system_library.h"
#include "core/text_encoding.h"
#include "formats/manifest.h"
#include "publisher/commands.h"
#include "publisher/console.h"

namespace talvex {
namespace {

constexpr char kAbout[] =
    "Makes, verifies and compares releases of the client. Between release and finish, manifest.txt is\n"
    "signed where the private key is kept:\n"
    "  openssl dgst -sha256 -sign private.pem -out manifest.sig manifest.txt\n"
    "A key pair is made there once, encrypted, and its public half carried here:\n"
    "  openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:3072 -aes256 -out private.pem\n"
    "  openssl pkey -in private.pem -pubout -out public.pem";
constexpr char kExitCodes[] =
    "Exit codes: 0 done; 1 refused, and nothing was written, or done, but the result could not be printed;\n"
    "2 the command line cannot be used.\n"
    "TalvexPublish.exe COMMAND --help tells more about a command.";

constexpr char kUnknownWord[] = "There is no such command or option: ";
constexpr char kTryHelp[] = "\nRun with --help for more information.";
constexpr wchar_t kNotUnicode[] = L"A word of the command line is not valid Unicode.";
constexpr char kBadName[] =
    "needs 1 to 64 letters, digits, dots, underscores and hyphens, a letter or digit first and no dot last";
constexpr char kBadSequence[] = "needs a decimal number from 1 to 18446744073709551615";

// Options and operands arrive as UTF-8, which is what CLI11 parses.
std::function<void(const std::string&)> Into(std::wstring& value) {
  return [&value](const std::string& word) { value = Utf8ToWide(word); };
}

std::function<void(const std::vector<std::string>&)> Into(std::vector<std::wstring>& values) {
  return [&values](const std::vector<std::string>& words) {
    std::transform(words.begin(), words.end(), std::back_inserter(values), Utf8ToWide);
  };
}

// An option or operand (a name without hyphens) that must be given.
CLI::Option* Require(CLI::App* command, const char* name, std::wstring& value, const char* meaning) {
  return command->add_option_function<std::string>(name, Into(value), meaning)->required();
}

void AddKey(CLI::App* command, CommonOptions& options) {
  Require(command, "--key", options.key, "Public key (PEM) of the key that signs the release")
      ->type_name("FILE");
}

// An option that may be given several times.
void AddFiles(CLI::App* command, const char* name, std::vector<std::wstring>& files, const char* meaning) {
  command->add_option_function<std::vector<std::string>>(name, Into(files), meaning)
      ->type_name("FILE")
      ->expected(1)
      ->allow_extra_args(false)  // an operand may follow
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void AddJson(CLI::App* command, CommonOptions& options) {
  command->add_flag("--json", options.json, "Write the result as one JSON object");
}

void AddAllowWarnings(CLI::App* command, CommonOptions& options) {
  command->add_flag("--allow-warnings", options.allow_warnings,
                    "Warnings are meant: do not refuse because of them");
}

void AddClientKeyElsewhere(CLI::App* command, CommonOptions& options) {
  command->add_flag("--client-key-elsewhere", options.allowances.client_key_elsewhere,
                    "Talvex.exe reads the public key from another file");
}

// What the commands that check a release have in common.
void AddChecks(CLI::App* command, CommonOptions& options) {
  AddKey(command, options);
  AddFiles(command, "--client-key", options.client_keys,
           "Another public key that Talvex.exe has to hold, for a change of keys");
  AddClientKeyElsewhere(command, options);
  command->add_flag("--allow-development", options.allowances.development,
                    "The programs may trust a development key: not for players");
  AddAllowWarnings(command, options);
}

std::function<std::string(std::string&)> Unless(const char* complaint, bool (*accepts)(const std::string&)) {
  return [complaint, accepts](std::string& word) {
    return accepts(word) ? std::string() : std::string(complaint);
  };
}

// The options of all commands, and the command line that fills them.
class CommandLine {
 public:
  CommandLine() {
    app_.footer(kExitCodes);
    app_.require_subcommand(1);
    // Inherited by the subcommands that follow: /srv/release is a path, and no option.
    app_.allow_windows_style_options(false);
    app_.set_version_flag("--version", TALVEX_VERSION);
    AddRelease();
    AddFinish();
    AddVerify();
    AddCompare();
    AddStatus();
    AddKeyCommand();
  }

  // Parses `words` (UTF-8, without the program's name) and runs the command. Returns the exit code.
  int Run(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());  // CLI11 takes them from the end
    try {
      app_.parse(std::move(words));
    } catch (const CLI::ParseError& reason) {  // its way to end parsing, also for --help
      return Explain(reason);
    }
    return run_();
  }

 private:
  int Explain(const CLI::ParseError& reason) {
    std::ostringstream output;
    std::ostringstream errors;
    const bool misused = app_.exit(reason, output, errors) != 0;
    std::string text = misused ? errors.str() : output.str();
    // A misspelled word is the reason why another one is missing.
    if (const std::vector<std::string> unknown = app_.remaining(true); misused && !unknown.empty()) {
      text = kUnknownWord + unknown.front() + kTryHelp;
    }
    text.erase(text.find_last_not_of('\n') + 1);
    WriteLines(misused ? Stream::kError : Stream::kOutput, Utf8ToWide(text));
    return misused ? kCommandMisused : kCommandDone;
  }

  void AddRelease() {
    CLI::App* const command = app_.add_subcommand(
        "release",
        "Copies a client directory into a release and describes it. Checks what can be checked before "
        "the release is signed");
    Require(command, "CLIENT_DIR", release_.client_directory, "Exactly the files that players are to have");
    Require(command, "--out", release_.out, "Directory to make, with manifest.txt and files")
        ->type_name("DIR");
    command->add_option("--name", release_.name, "What players see, such as 2.1")
        ->required()
        ->check(CLI::Validator(
            Unless(kBadName, [](const std::string& word) { return IsReleaseIdentifier(word); }), "ID"));
    command
        ->add_option_function<std::string>(
            "--sequence",
            [this](const std::string& word) {
              static_cast<void>(ParseDecimalU64(std::string_view(word), release_.sequence));
            },
            "A number that grows with every release")
        ->required()
        ->check(CLI::Validator(Unless(kBadSequence,
                                      [](const std::string& word) {
                                        std::uint64_t number = 0;
                                        return ParseDecimalU64(std::string_view(word), number) && number != 0;
                                      }),
                               "N"));
    AddChecks(command, release_.common);
    command->callback([this] { run_ = [this] { return MakeRelease(release_); }; });
  }

  void AddFinish() {
    CLI::App* const command = app_.add_subcommand(
        "finish", "Adds the signature to a release, after verifying the whole release with it");
    Require(command, "RELEASE_DIR", finish_.directory, "What the command release has made");
    Require(command, "--signature", finish_.signature, "The signature over its manifest.txt")
        ->type_name("FILE");
    AddChecks(command, finish_.common);
    command->callback([this] { run_ = [this] { return FinishRelease(finish_); }; });
  }

  void AddVerify() {
    CLI::App* const command = app_.add_subcommand(
        "verify",
        "Verifies a finished release: the signature, every file, and that players can live with it");
    Require(command, "RELEASE_DIR", verify_.directory,
            "The directory with manifest.txt, manifest.sig and files");
    AddChecks(command, verify_.common);
    AddJson(command, verify_.common);
    command->callback([this] { run_ = [this] { return VerifyCommand(verify_); }; });
  }

  void AddCompare() {
    CLI::App* const command = app_.add_subcommand(
        "compare",
        "Finds out whether players with older releases can install a new one, and what it costs them");
    Require(command, "NEW", compare_.new_release, "The new release's directory");
    command
        ->add_option_function<std::vector<std::string>>(
            "OLD", Into(compare_.old_releases),
            "Directories of older releases: of all since the last change of keys")
        ->required();
    AddKey(command, compare_.common);
    AddFiles(command, "--old-key", compare_.old_keys, "Public key that signed some of the older releases");
    command->add_flag("--unsigned", compare_.unsigned_release,
                      "NEW has no signature yet: find out before the key signs it");
    AddClientKeyElsewhere(command, compare_.common);
    AddAllowWarnings(command, compare_.common);
    AddJson(command, compare_.common);
    command->callback([this] { run_ = [this] { return CompareReleases(compare_); }; });
  }

  void AddStatus() {
    CLI::App* const command = app_.add_subcommand(
        "status",
        "Tells what is installed in a client directory and what is wrong with it, and changes nothing");
    Require(command, "CLIENT_DIR", status_.client_directory, "A player's client directory");
    AddKey(command, status_.common);
    AddAllowWarnings(command, status_.common);
    AddJson(command, status_.common);
    command->callback([this] { run_ = [this] { return ShowStatus(status_); }; });
  }

  void AddKeyCommand() {
    CLI::App* const command = app_.add_subcommand(
        "key", "Checks a public key and writes it as publisher_key.pem and, for C and C++, publisher_key.h");
    Require(command, "PUBLIC_KEY", key_.key, "Public key (PEM), as openssl writes it");
    Require(command, "--out", key_.out, "Existing directory for the two files")->type_name("DIR");
    command->callback([this] { run_ = [this] { return ExportKey(key_); }; });
  }

  CLI::App app_{kAbout, "TalvexPublish.exe"};
  ReleaseOptions release_;
  FinishOptions finish_;
  VerifyOptions verify_;
  CompareOptions compare_;
  StatusOptions status_;
  KeyOptions key_;
  std::function<int()> run_;
};

int RunPublisher(int count, wchar_t* const* words) {
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) {
    arguments.push_back(WideToUtf8(words[i]));
    if (arguments.back().empty() && *words[i] != L'\0') {
      WriteLine(Stream::kError, kNotUnicode);
      return kCommandMisused;
    }
  }
  const int exit_code = CommandLine().Run(std::move(arguments));
  return exit_code == kCommandDone && HasLostOutput() ? kCommandRefused : exit_code;
}

}  // namespace
}  // namespace talvex

int main() {
  talvex::RestrictDllSearch();
  int count = 0;
  const talvex::ArgumentVector words(CommandLineToArgvW(GetCommandLineW(), &count));
  if (words == nullptr) {
    return talvex::kCommandMisused;
  }
  int exit_code = talvex::kCommandRefused;
  // Caught, so that an unfinished release is removed on the way out.
  if (!talvex::RunCatchingBadAlloc([&] {
        exit_code = talvex::RunPublisher(count, words.get());
        return true;
      })) {
    talvex::WriteLine(talvex::Stream::kError, L"error: There is not enough memory.");
  }
  return exit_code;
}
