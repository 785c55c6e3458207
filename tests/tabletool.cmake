# tabletool end to end: every command on the stored table files, on copies
# it converts, and on damaged files, checking output and exit codes.
# Run by CTest with -DTOOL=<tabletool> -DDATA=<tests/data> -DWORK=<scratch>.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

# run(<expected exit> <regex the output must match> args...)
function(run expected pattern)
    execute_process(COMMAND ${TOOL} ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    if(NOT code STREQUAL "${expected}")
        message(FATAL_ERROR "tabletool ${ARGN}: exit ${code}, expected ${expected}\n${output}${errors}")
    endif()
    if(NOT "${output}${errors}" MATCHES "${pattern}")
        message(FATAL_ERROR "tabletool ${ARGN}: output does not match '${pattern}':\n${output}${errors}")
    endif()
endfunction()

set(plain ${DATA}/quotes)
set(gz ${DATA}/quotes.gz)

run(0 "rows: +3.*record length: +37 bytes.*ticker +String\\(6\\) +not null.*title \"Ticker\".*last +Decimal\\(2\\).*volume +Integer64" info ${plain})
run(0 "\\(gzip\\).*uncompressed: +285 bytes" info ${gz})
run(0 "^ticker\tlast\tvolume\ttime\nABC\t100.00\t1000\t2024.03.05 10:00:00.000\nXYZ.*\nQRS\t102.50\tNULL" dump ${gz})
run(0 "^ticker,last\r?\nABC,100.00\r?\n$" dump ${plain} --format csv --columns ticker,last --limit 1)
run(0 "\"volume\": null" dump ${plain} --format json)
run(0 "ok, 4 columns, 3 rows" verify ${plain})
run(0 "ok, 4 columns, 3 rows" verify ${gz})

# RFC 4180 quoting, and nulls empty in CSV and null in JSON (tests/data/quoting
# holds "a,b", 'say "hi"' and a null).
run(0 "^text,n\r?\n\"a,b\",1\r?\n\"say \"\"hi\"\"\",2\r?\n,3\r?\n$" dump ${DATA}/quoting --format csv)
run(0 "\"text\": null" dump ${DATA}/quoting --format json)

# Round trips through convert, both ways; the result verifies and dumps alike.
run(0 "3 rows written \\(gzip\\)" convert ${plain} ${WORK}/copy.gz)
run(0 "3 rows written" convert ${WORK}/copy.gz ${WORK}/copy --plain)
run(0 "ok, 4 columns, 3 rows" verify ${WORK}/copy)
run(0 "QRS\t102.50\tNULL" dump ${WORK}/copy)

# Usage errors: exit 2 or 1 with the reason.
run(2 "usage: tabletool" frobnicate ${plain})
run(1 "--limit takes a number of rows, not 'abc'" dump ${plain} --limit abc)
run(1 "--format takes text, csv or json" dump ${plain} --format xml)
run(1 "no column 'nope'" dump ${plain} --columns nope)
run(1 "missing: No such file" info ${WORK}/missing)
run(0 "--columns" dump --help)

# Damaged files name the file and the first problem.
run(1 "record-length-short: the record length is 10, the layout needs 37" verify ${DATA}/damaged/record-length-short)
run(1 "cut-190: 3 rows need 111 bytes of data, the file has 16" verify ${DATA}/damaged/cut-190)
run(1 "cut.gz: .*cut short" verify ${DATA}/damaged/cut.gz)
run(1 "string-length-negative: .*length -1" dump ${DATA}/damaged/string-length-negative)
