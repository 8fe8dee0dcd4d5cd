#!/usr/bin/env bash
# The native daemon records 20 s onto a formatted card image mounted by a
# real kernel (User-mode Linux), stops on SIGTERM, and the card unmounts
# clean: see real_card_check for what is judged.
source "$(dirname "$0")/real_card_lib.sh"
real_card_record 20
real_card_check 20
finish
