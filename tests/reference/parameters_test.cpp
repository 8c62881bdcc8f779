// Parameters: the device's own splitting and option rules, on the lines applications get.

#include <gtest/gtest.h>

#include <list>
#include <string>

#include "common_utilities/parameters.h"

namespace {

using quorvel::utilities::Parameters;
using List = std::list<std::string>;

Parameters Parsed(const std::string& line) {
    Parameters parameters;
    parameters.Set(line);
    return parameters;
}

TEST(Parameters, OptionsTakeTheNextTokenOrTheRestOfTheirOwn) {
    Parameters p = Parsed("-o file x");
    EXPECT_EQ(p.GetOptArg('o'), "file");
    EXPECT_EQ(p.GetArguments(), (List{"file", "x"}));  // the value counts as an argument too

    p = Parsed("-a -b");
    EXPECT_TRUE(p.IsOptPresent('a') && p.IsOptPresent('b'));
    EXPECT_EQ(p.GetOptArg('a'), "");
    EXPECT_TRUE(p.GetArguments().empty());

    // Grouped flags and an attached value at once.
    p = Parsed("-abc");
    EXPECT_EQ(p.GetAllOptArgs('a'), (List{"bc"}));
    EXPECT_EQ(p.GetAllOptArgs('b'), (List{""}));
    EXPECT_EQ(p.GetAllOptArgs('c'), (List{""}));
    EXPECT_FALSE(p.IsOptPresent('x'));

    // Repeated options keep every value, in order; the first answers GetOptArg.
    p = Parsed("-x 1 -y -x 2 -x3");
    EXPECT_EQ(p.GetAllOptArgs('x'), (List{"1", "2", "3"}));
    EXPECT_EQ(p.GetOptArg('x'), "1");
    EXPECT_EQ(p.GetOptArg('y'), "");

    p = Parsed("- x");
    EXPECT_TRUE(p.IsOptPresent('\0'));
    EXPECT_EQ(p.GetOptArg('\0'), "x");
    EXPECT_EQ(p.GetOptArg('q'), "");
}

TEST(Parameters, QuotesHoldBlanks) {
    Parameters p = Parsed("\"two words\"");
    EXPECT_EQ(p.GetTokens(), (List{"two words"}));
    EXPECT_TRUE(p.IsArgumentPresent("two") && p.IsArgumentPresent("words"));
    EXPECT_FALSE(p.IsArgumentPresent("two words"));

    p = Parsed("-p\"a b\" next");
    EXPECT_EQ(p.GetTokens(), (List{"-p\"a b\"", "next"}));
    EXPECT_EQ(p.GetOptArg('p'), "\"a b\"");

    // A path with blanks, as a shelf hands a book to the reader, between options.
    p = Parsed("  /zelgrot/bin/reader\t\"/mnt/ext1/My Books/War and  Peace.epub\" -p 3 -p 7  ");
    EXPECT_EQ(p.GetTokens(), (List{"/zelgrot/bin/reader", "/mnt/ext1/My Books/War and  Peace.epub",
                                   "-p", "3", "-p", "7"}));
    EXPECT_EQ(p.GetAllOptArgs('p'), (List{"3", "7"}));
    EXPECT_TRUE(p.IsArgumentPresent("Books/War"));
    EXPECT_FALSE(p.IsArgumentPresent(""));  // the double blank leaves no empty argument

    // Quotes inside a word that hold no blank, and two quoted parts in one token.
    EXPECT_EQ(Parsed("-p\"a\"b c\"d e\"").GetTokens(), (List{"-p\"a\"b", "c\"d e\""}));
    // An empty quoted token is a token, but no argument.
    p = Parsed("\"\" x");
    EXPECT_EQ(p.GetTokens(), (List{"", "x"}));
    EXPECT_EQ(p.GetArguments(), (List{"x"}));
}

TEST(Parameters, LoneQuotesAreOrdinaryCharacters) {
    EXPECT_EQ(Parsed("say \"hello").GetTokens(), (List{"say", "\"hello"}));
    EXPECT_EQ(Parsed("a \" b").GetTokens(), (List{"a", "\"", "b"}));
    EXPECT_EQ(Parsed("\"").GetTokens(), (List{"\""}));
    EXPECT_EQ(Parsed("\"\"").GetTokens(), (List{"\"\""}));
    EXPECT_TRUE(Parsed("   \t ").GetTokens().empty());

    Parameters p;
    EXPECT_EQ(p.FindEndEscapedParameter("a\"b\"c"), 3);
    EXPECT_EQ(p.FindEndEscapedParameter("\"x"), -1);
    EXPECT_EQ(p.LTrim(p.RTrim(" \t\n x y \r\n")), "x y");
}

TEST(Parameters, ArgvIsJoinedAndNullsAreSkipped) {
    const char* argv[] = {"/zelgrot/bin/app", nullptr, "-v", "my file"};
    Parameters p;
    p.Set(4, argv);
    EXPECT_EQ(p.GetTokens(), (List{"/zelgrot/bin/app", "-v", "my", "file"}));
    EXPECT_EQ(p.GetOptArg('v'), "my");

    // A null argv changes nothing; a null text empties the tokens only.
    p.Set(2, nullptr);
    EXPECT_EQ(p.GetTokens().size(), 4u);
    p.Set(static_cast<const char*>(nullptr));
    EXPECT_TRUE(p.GetTokens().empty());
    EXPECT_TRUE(p.IsOptPresent('v'));

    // A new line replaces options and arguments.
    p.Set("-w");
    EXPECT_FALSE(p.IsOptPresent('v'));
    EXPECT_TRUE(p.GetArguments().empty());
}

}  // namespace
