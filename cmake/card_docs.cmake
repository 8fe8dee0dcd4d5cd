# The card tool's manual page and bash completion, both made from what
# "avrecord-card --help" and "avrecord-card version" print, so they list the
# commands and options of the program they are packaged with.
#   cmake -DPROGRAM=... -DMAN=avrecord-card.1 -DCOMPLETION=avrecord-card -P card_docs.cmake
execute_process(COMMAND ${PROGRAM} --help OUTPUT_VARIABLE help RESULT_VARIABLE failed)
execute_process(COMMAND ${PROGRAM} version OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
if(failed)
  message(FATAL_ERROR "${PROGRAM} --help failed")
endif()

# Text for roff: backslashes and hyphens escaped.
function(roff_text out text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

string(REGEX MATCH "^usage: avrecord-card ([^\n]*)" usage "${help}")
roff_text(synopsis "${CMAKE_MATCH_1}")
set(commands "")
set(man_commands "")
set(completion_cases "")
string(REPLACE "\n" ";" lines "${help}")
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^  ([a-z]+) ?(.*)$")
    continue()
  endif()
  set(command ${CMAKE_MATCH_1})
  set(arguments "${CMAKE_MATCH_2}")
  list(APPEND commands ${command})
  roff_text(roff_arguments "${arguments}")
  string(APPEND man_commands ".TP\n.B ${command}\n${roff_arguments}\n")
  # Brackets would upset CMake's lists: the options are read without them.
  string(REGEX REPLACE "[][|]" " " plain "${arguments}")
  string(REGEX MATCHALL "(^| )(-o|--[a-z-]+)" options "${plain}")
  list(TRANSFORM options STRIP)
  list(REMOVE_DUPLICATES options)
  list(JOIN options " " options)
  string(APPEND completion_cases "        ${command}) options=\"${options}\" ;;\n")
endforeach()
list(JOIN commands " " commands)

roff_text(roff_version "${version}")
file(WRITE ${MAN} ".TH AVRECORD\\-CARD 1 \"\" \"${roff_version}\" \"User Commands\"
.SH NAME
avrecord\\-card \\- search, export, check and serve the recordings of an AVRecord microSD card
.SH SYNOPSIS
.B avrecord\\-card
${synopsis}
.SH DESCRIPTION
Reads a card mounted as a folder (\\fB\\-\\-card\\fR DIR) or a card image or
device read without mounting it (\\fB\\-\\-image\\fR PATH). It writes to a card
only where a command says so. \\fB\\-\\-json\\fR prints one JSON object a line.
.SH COMMANDS
Each command's line lists every option it takes.
${man_commands}.SH OPTIONS
.TP
.BR \\-h \", \" \\-\\-help
after a command: prints that command's usage and does nothing else;
alone: lists the commands.
.TP
.BI \\-\\-card \" DIR\"
the card mounted as a folder (default: the recorder's mount point).
.TP
.BI \\-\\-image \" PATH\"
a card image or the card's device, read without mounting it.
.TP
.B \\-\\-json
one JSON object a line instead of a table.
.TP
.B \\-\\-recover
on a damaged index: read the index rebuilt from the media files, in memory;
nothing is written.
.SH EXIT STATUS
0 when the command did its work, 1 for a problem with the card, 2 for a
usage problem.
")

file(WRITE ${COMPLETION} "# bash completion for avrecord-card: its commands, and the options of each.
_avrecord_card() {
    local cur=\${COMP_WORDS[COMP_CWORD]} options=
    if [ \"\$COMP_CWORD\" -eq 1 ]; then
        COMPREPLY=(\$(compgen -W \"${commands}\" -- \"\$cur\"))
        return
    fi
    case \${COMP_WORDS[1]} in
${completion_cases}    esac
    [[ \$cur == -* ]] && COMPREPLY=(\$(compgen -W \"\$options\" -- \"\$cur\"))
}
complete -o bashdefault -o default -F _avrecord_card avrecord-card
")
