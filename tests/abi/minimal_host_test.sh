#!/usr/bin/env bash
# Runs the minimal host and compares what it prints, to the byte. Usage: minimal_host_test.sh PROGRAM FOLDER
set -euo pipefail
program=$1 folder=$2
diff "$folder/expected_output.txt" <("$program" "$folder" 2>&1)

# Bad use: one line and a code.
code=0
said=$("$program" 2>&1) || code=$?
[ "$code" = 2 ]
[ "$said" = "minimal_host: name the folder that holds opt/..." ]
