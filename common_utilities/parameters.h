// Parameters: the options and arguments of an application, from its argv or from one line that
// another process handed on.
//
// The rules are the device's own, not those of getopt:
//
// Splitting a line into tokens. Blanks (spaces and tabs) separate tokens, and leading and
// trailing white space is dropped on every turn. A token that begins with a double quote runs
// to the next double quote and loses both ("\"my book.epub\"" is the token my book.epub), as
// long as the rest is at least three characters and holds the closing quote. A token with a
// quoted part inside that holds blanks (-p"a b") runs to the first blank behind the closing
// quote, quotes kept. A lone quote without its partner is an ordinary character.
//
// Options. A token beginning with "-" is an option:
//   "-x"    key x; the next token is its value unless it begins with "-" (then the value is
//           empty). A value token counts as an argument as well (see below).
//   "-xyz"  key x with the value "yz", and also keys y and z with empty values: the same form
//           serves grouped flags and attached values, and callers ask whichever they mean.
//   "-"     key '\0' with an empty value.
// Keys may repeat; every value is kept in order.
//
// Arguments. Every non-empty token that does not begin with "-" is cut at its blanks, each
// non-empty piece an argument: a quoted path with blanks gives its words as arguments, though it
// is one token.
//
// Not thread-safe; an object belongs to one thread at a time.
#pragma once

#include <list>
#include <map>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT Parameters {
public:
    using Options = std::multimap<char, std::string>;

    Parameters() = default;

    // The non-null entries of argv joined by single blanks, then split as a line. A null argv
    // changes nothing.
    void Set(int argc, const char* const* argv);
    void Set(const std::string& text);
    // A null text empties the tokens and leaves the options and arguments as they were.
    void Set(const char* text);

    bool IsOptPresent(char key) const;
    // The value of the first option `key`; empty when there is none.
    std::string GetOptArg(char key) const;
    std::list<std::string> GetAllOptArgs(char key) const;
    // Whether `argument` is one of the arguments, exactly.
    bool IsArgumentPresent(const std::string& argument) const;

    const std::list<std::string>& GetTokens() const { return tokens_; }
    const Options& GetOptions() const { return options_; }
    const std::list<std::string>& GetArguments() const { return arguments_; }

    // `text` without trailing or leading white space (as isspace says).
    std::string RTrim(const std::string& text) const;
    std::string LTrim(const std::string& text) const;
    // Position of the second double quote in `text`, or -1.
    long FindEndEscapedParameter(const std::string& text) const;

    // Options and arguments afresh from the tokens.
    void AnalizeString();
    Options Break2OptPair(const std::list<std::string>& tokens) const;
    std::list<std::string> Break2Arguments(const std::list<std::string>& tokens) const;

private:
    // Takes the next token off the front of `rest` (trimmed, not empty).
    std::string NextToken(std::string& rest) const;

    std::list<std::string> tokens_;
    Options options_;
    std::list<std::string> arguments_;
};

}  // namespace utilities
}  // namespace quorvel
