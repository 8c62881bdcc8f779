// qvtool's notes commands as a user runs them, on a sample file made by qvtool host reader-db:
// exit codes, and the tables a user or a script reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "reader_books_db.h"

namespace {

using testing::HasSubstr;
using testing::Not;

qvtest::ChildResult Qv(std::vector<std::string> args) {
    args.insert(args.begin(), qvtest::BuildProgram("qvtool"));
    return qvtest::RunProgram(args);
}

// The output's first word on the line after the table's rule: the first row's key.
std::string FirstKey(const std::string& output) {
    std::istringstream in(output.substr(output.find("\n--") + 1));
    std::string rule, key;
    std::getline(in, rule);
    in >> key;
    return key;
}

TEST(QvtoolNotes, AWholeSessionOnASampleFile) {
    auto missing = Qv({"notes", "books"});
    EXPECT_EQ(3, missing.exit_code) << missing.output;
    EXPECT_THAT(missing.output, HasSubstr("no notes database"));

    auto made = Qv({"host", "reader-db", "--books", "3", "--notes", "40", "--seed", "7"});
    ASSERT_EQ(0, made.exit_code) << made.output;
    EXPECT_EQ(1, Qv({"host", "reader-db"}).exit_code);  // kept unless --replace
    const std::string book = readerapp::SampleBookHash(7, 0);

    auto books = Qv({"notes", "books"});
    ASSERT_EQ(0, books.exit_code) << books.output;
    EXPECT_THAT(books.output, HasSubstr(book));
    EXPECT_THAT(books.output, HasSubstr("The Lighthouse Keeper"));
    EXPECT_THAT(books.output, HasSubstr("(3 books)"));

    auto added = Qv({"notes", "add", book, "--text", "Grüße aus 100% Leinen", "--comment",
                     "a \"real\" find", "--time", "2030-01-02 03:04"});
    ASSERT_EQ(0, added.exit_code) << added.output;
    const std::string note = added.output.substr(added.output.rfind(' ') + 1, 36);

    // Texts come from the JSON bodies, not the bodies themselves.
    auto list = Qv({"notes", "list", book, "--text", "grÜße"});
    EXPECT_THAT(list.output, HasSubstr("(0 notes)"));  // only ASCII letters fold
    list = Qv({"notes", "list", book, "--text", "GRüße"});
    ASSERT_EQ(0, list.exit_code) << list.output;
    EXPECT_EQ(note, FirstKey(list.output));
    EXPECT_THAT(list.output, HasSubstr("Grüße aus 100% Leinen"));
    EXPECT_THAT(list.output, HasSubstr("a \"real\" find"));
    EXPECT_THAT(list.output, Not(HasSubstr("\"text\" :")));

    auto search = Qv({"notes", "search", "100%Leinen"});
    EXPECT_THAT(search.output, HasSubstr(note));
    EXPECT_THAT(search.output, HasSubstr("(1 note)"));

    auto since = Qv({"notes", "since", "2030-01-01"});
    ASSERT_EQ(0, since.exit_code) << since.output;
    EXPECT_EQ(book, FirstKey(since.output));
    EXPECT_THAT(since.output, HasSubstr("2030-01-02 03:04"));

    auto show = Qv({"notes", "show", note});
    EXPECT_THAT(show.output, HasSubstr("live"));
    EXPECT_THAT(show.output, HasSubstr("note"));

    ASSERT_EQ(0, Qv({"notes", "rm", note}).exit_code);
    EXPECT_THAT(Qv({"notes", "show", note}).output, HasSubstr("deleted"));
    EXPECT_THAT(Qv({"notes", "since", "2030-01-01"}).output, HasSubstr("deleted"));
    EXPECT_THAT(Qv({"notes", "list", book, "--text", "Leinen"}).output, HasSubstr("(0 notes)"));

    EXPECT_EQ(3, Qv({"notes", "rm", "NO-SUCH-NOTE"}).exit_code);
    EXPECT_EQ(3, Qv({"notes", "list", "NO-SUCH-BOOK"}).exit_code);
    EXPECT_EQ(3, Qv({"notes", "add", "NO-SUCH-BOOK", "--text", "x"}).exit_code);
    EXPECT_EQ(2, Qv({"notes", "add", book}).exit_code);
    EXPECT_EQ(2, Qv({"notes", "since", "2030-02-30x"}).exit_code);
    EXPECT_EQ(0, Qv({"notes", "add-book", "NEWBOOK", "Neu", "--authors", "Ich"}).exit_code);
    EXPECT_EQ(1, Qv({"notes", "add-book", "NEWBOOK", "Neu"}).exit_code);
}

}  // namespace
