# shellcheck shell=bash
# Reads what the tests left behind. Both functions print one line a test: "passed", "failed" or "skipped", the test's
# name and a reason, separated by tabs.

# junit_results FILE: as ctest writes it. A test that ctest could not start is reported there like a skipped one, and is
# a failure; only what asked to be skipped is that.
junit_results() {
    awk '
        function attribute(name,   part) {
            if (!match($0, " " name "=\"[^\"]*\"")) return ""
            part = substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4)
            gsub(/&quot;/, "\"", part); gsub(/&lt;/, "<", part); gsub(/&gt;/, ">", part); gsub(/&amp;/, "\\&", part)
            return part
        }
        after_skip { reason = $0; after_skip = 0 }
        /<testcase / { name = attribute("name"); status = attribute("status"); reason = "" }
        /<skipped /  { message = attribute("message"); asked = message ~ /^SKIP_/ }
        /: Skipped$/ { after_skip = 1 }
        /<\/testcase>/ {
            if (status == "run") result = "passed"
            else if (status == "disabled") { result = "skipped"; reason = "disabled" }
            else if (status == "notrun" && asked) result = "skipped"
            else { result = "failed"; if (status == "notrun") reason = message }
            print result "\t" name "\t" reason
            asked = 0
        }' "$1"
}

# tap_results FILE: the assertions of a guest test.
tap_results() {
    awk -v "test=$(basename "$1" .tap)" '
        sub(/^ok - /, "")     { print "passed\t" test ": " $0 "\t"; next }
        sub(/^not ok - /, "") { print "failed\t" test ": " $0 "\t"; next }
    ' "$1"
}
