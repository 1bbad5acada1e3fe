#!/bin/sh
# make_man.sh PROGRAM VERSION: prints the manual page of udtlab. Commands and options come from the program's own
# --help, so that the page cannot fall behind it; the rest stands here.
set -eu
program=$1 version=$2

# One "Options:" block of --help as a list: the option's column, then its text, which may go on below.
options()
{
    awk '
    function roff(s) { gsub(/\\/, "\\e", s); gsub(/-/, "\\-", s); sub(/^[.\x27]/, "\\\\\\&&", s); return s }
    function flush() { if (term != "") printf ".TP\n.B %s\n%s\n", roff(term), roff(text); term = text = "" }
    /^Usage:/ { next }
    /^Subcommands:/ { flush(); exit }
    /^[A-Z].*:$/ { flush(); title = $0; sub(/:$/, "", title); if (title != "Options") printf ".PP\n.I %s\n", roff(title); next }
    /^  [^ ]/ {
        flush(); line = substr($0, 3)
        at = match(line, /  +/)
        # A long argument leaves one blank only before the text, whose column is the 31st; "[0 - 9]" has blanks too.
        if (!at && substr($0, 30, 1) == " " && length($0) > 30 && substr($0, 3, 27) !~ /\[[^]]*$/) { term = substr($0, 3, 27); text = substr($0, 31); next }
        term = at ? substr(line, 1, at - 1) : line
        text = at ? substr(line, at + RLENGTH) : ""
        next
    }
    /^        / { line = $0; sub(/^ +/, "", line); text = text (text == "" ? "" : " ") line }
    END { flush() }'
}

cat <<END_HEAD
.TH UDTLAB 1 "" "udtrecv $version" "User Commands"
.SH NAME
udtlab \\- laboratory for the receiver of real\\-time calls
.SH SYNOPSIS
.B udtlab
.I COMMAND
.RI [ OPTION ]...
.SH DESCRIPTION
.B udtlab
runs the receiver of
.B udtrecv
on calls, recorded and simulated, and shows what happened to every stream: packets lost, asked for again, late,
played, and the delay they were played with. It drives the receiver in virtual time unless a command says
otherwise, so an hour of a call takes seconds, and the same input gives the same output, byte for byte.
.SH COMMANDS
END_HEAD

commands=$("$program" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z][a-z0-9-]*\) .*/\1/p')
[ -n "$commands" ] || { echo "make_man.sh: $program --help names no commands" >&2; exit 1; }
for command in $commands
do
    printf '.SS "udtlab %s"\n' "$command"
    # The first line of its help says what it is; CLI11 may leave an empty one before.
    "$program" "$command" --help | sed -n '/[^ ]/ { s/-/\\-/g; p; q; }'
    "$program" "$command" --help | sed '1,/^Usage:/d' | options
done

cat <<'END_TAIL'
.SH EXIT STATUS
.TP
.B 0
done
.TP
.B 2
bad options, input or output; one line on standard error says which file, where in it, and what was expected
.TP
.B 3
a check of the receiver's behaviour was broken; the run ends there
.SH FILES
.TP
.I /usr/share/udtrecv/scenarios
networks to simulate calls over
.SH EXAMPLES
.PP
What does a recorded call look like to the receiver?
.PP
.nf
.RS
udtlab replay call.pcapng \-\-json figures.json \-\-out played.pcap
.RE
.fi
.PP
A call of four with 5 % random loss over 100 ms:
.PP
.nf
.RS
udtlab simulate \-\-loss 5% \-\-rtt 100
.RE
.fi
.PP
Why did it sound bad? As a page, and against the same call in low\-latency mode:
.PP
.nf
.RS
udtlab replay call.pcapng \-\-html report.html \-\-report a.json
udtlab replay call.pcapng \-\-mode low\-latency \-\-report b.json
udtlab report a.json b.json \-\-html diff.html
.RE
.fi
.SH SEE ALSO
.BR wireshark (1),
.BR rtpdump (1)
END_TAIL
