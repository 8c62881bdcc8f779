# Reader notes: the reading application's notes database, as other applications see it. On the
# device the reading application makes the file; here qvtool host reader-db plays its part.

section "Reader notes: a notes database as the reading application leaves it"
show_fails 'qvtool notes books    # nothing to read before the reading application made the file'
show 'qvtool host reader-db --books 12 --notes 2000'
show 'qvtool notes books      # bookmarks are not counted; most recently changed first'

book=$(qvtool notes books | awk 'NR == 3 { print $1 }')
section "Notes of one book, texts taken from their JSON bodies"
show "qvtool notes list $book --text harbour | tail -n 5"
show "qvtool notes list $book --text 'ВИШНЯ' | tail -n 2     # other letters only as written"
show "qvtool notes search 'snake_case' | tail -n 3            # \"_\" and \"%\" are wildcards"
show "qvtool notes books --text RIVER                         # ASCII letters in either case"

section "Writing as another application would"
show "qvtool notes add $book --text 'Grüße aus dem Apfelgarten' --comment 'worth keeping' --time '2031-05-01 09:30'"
note=$(qvtool notes since 2031-01-01 | awk 'NR == 3 { print $2 }')
show "qvtool notes show $note"
show "qvtool notes add $book --hash $note --color green --time '2031-05-02 10:00'   # a change"
show "qvtool notes rm $note"
show "qvtool notes since 2031-01-01      # a deletion is a change too"
show_fails 'qvtool notes rm NO-SUCH-NOTE'
