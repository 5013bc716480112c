# Tests of the tools beside vundrel: the inspection pass, kavot end to end, and the Slurm batch script.

add_executable(kavot_survey_tests Tpx3Survey_test.cpp)
target_link_libraries(kavot_survey_tests PRIVATE kavot_tpx3spidr::kavot_tpx3spidr GTest::gtest_main
    kavot_warnings)
target_include_directories(kavot_survey_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
gtest_discover_tests(kavot_survey_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)

# kavot convert against the truth of generated recordings, and on the real quad recordings.
add_executable(kavot_conversion_tests Conversion_test.cpp ScaleOffset_test.cpp)
target_link_libraries(kavot_conversion_tests PRIVATE kavot_toolkit kavot_tools GTest::gtest_main kavot_warnings)
target_compile_definitions(kavot_conversion_tests PRIVATE KAVOT_TEST_DATA_DIR="${KAVOT_TEST_DATA_DIR}")
gtest_discover_tests(kavot_conversion_tests TEST_FILTER "-RealRecordings.*" DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit)
gtest_discover_tests(kavot_conversion_tests TEST_FILTER "RealRecordings.*" DISCOVERY_TIMEOUT 60 PROPERTIES LABELS data)

# kavot end to end, on inputs made once by tpx3gen, vundrel and printf (see tools/make_inputs.sh).
set(kavot_inputs ${CMAKE_CURRENT_BINARY_DIR}/kavot_inputs)
add_test(NAME kavot.MakeInputs COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/tools/make_inputs.sh $<TARGET_FILE:tpx3gen>
    $<TARGET_FILE:vundrel> ${kavot_inputs})
set_tests_properties(kavot.MakeInputs PROPERTIES FIXTURES_SETUP kavot_inputs LABELS e2e)

# kavot_case(NAME STATUS [OUT regex] [ERR regex] [ABSENT glob] ARGS kavot arguments...)
function(kavot_case name status)
    cmake_parse_arguments(CASE "" "OUT;ERR;ABSENT" "ARGS" ${ARGN})
    set(checks -DSTATUS=${status})
    foreach(check OUT ERR ABSENT)
        if(DEFINED CASE_${check})
            list(APPEND checks "-D${check}=${CASE_${check}}")
        endif()
    endforeach()
    add_test(NAME kavot.${name} COMMAND ${CMAKE_COMMAND} ${checks} -P ${CMAKE_CURRENT_SOURCE_DIR}/tools/run_tool.cmake
        -- $<TARGET_FILE:kavot_cli> ${CASE_ARGS} WORKING_DIRECTORY ${kavot_inputs})
    set_tests_properties(kavot.${name} PROPERTIES FIXTURES_REQUIRED kavot_inputs LABELS e2e)
endfunction()

kavot_case(InfoCountsARecording 0 ARGS info sample.tpx3
    OUT "packets: 20000 pixel hits.*global timestamps: [0-9]+, the first at 1.000000000 s")
kavot_case(InfoJsonHoldsNumbers 0 ARGS info --json sample.tpx3
    OUT "^{\"file\":\"sample.tpx3\",.*\"chunks\":[1-9][0-9]*,.*\"pixel_hits\":20000,\"tdc_packets\":[0-9]+,.*\"global_timestamps\":[1-9][0-9]*,.*\"time_span_s\":0\\.00[0-9]+,.*\"error\":null}\n$")
kavot_case(InfoWarnsBeyondTheTimeModel 0 ARGS info long.tpx3
    OUT "warning: the hits run from 0\\.[0-9]+ s to 5[01]\\.[0-9]+ s around the first global timestamp, but vundrel places pixel times correctly only from -13\\.422 s to 40\\.265 s")
kavot_case(InfoWarnsOfChipsAndRefusesNoGlobalTime 1 ARGS info twochips.tpx3
    OUT "chips: 0 \\(1 chunks\\), 1 \\(1 chunks\\).*warning: [^\n]*2 chips \\(0, 1\\).*warning: [^\n]*--globalTime_ignore"
    ERR "^kavot: Supplied file does not contain a global timestamp!\n$")
kavot_case(InfoReportsEachChipAndTheCanvas 1 ARGS info twochips.tpx3
    OUT "\n  chip 0: 1 hits, 0 heartbeats \\(0 stale\\), 0 TDC \\(0 copies of another chip's\\)\n  chip 1: 1 hits, [^\n]*\ncanvas for kavot convert: quad, 514 x 514 px\n.*; 0 invalid \\(fine time 0\\)\n")
kavot_case(InfoNamesTheChipsTheDefaultCanvasCannotPlace 1 ARGS info chip5.tpx3
    OUT "\ncanvas for kavot convert: single, 256 x 256 px; chip 5 has no place on it: give kavot convert --layout FILE.json\n")
kavot_case(InfoJsonDetailsChipsAndCanvas 1 ARGS info --json chip5.tpx3
    OUT "\"chip_details\":\\[{\"chip\":0,\"chunks\":1,\"hits\":1,\"heartbeats\":0,\"heartbeat_interval_s\":null,\"stale_heartbeats\":0,\"tdc_packets\":0,\"tdc_copies\":0},{\"chip\":5,.*\"invalid_tdc_packets\":0,.*\"convert_canvas\":{\"layout\":\"single\",\"width_px\":256,\"height_px\":256,\"unplaced_chips\":\\[5\\]},\"warnings\"")
# A real quad recording that starts with one stale heartbeat per chip and holds one invalid TDC packet; skipped
# where the recordings are absent.
set(staleStart ${KAVOT_TEST_DATA_DIR}/greg_220ms_TDC_GDC_enabled_20230214_3.tpx3)
add_test(NAME kavot.InfoCountsStaleHeartbeatsOfARealRecording COMMAND ${CMAKE_COMMAND} -DSTATUS=0
    -DREQUIRES=${staleStart} "-DOUT=\n  chip 0: [^\n]*\\(1 stale\\), 13291 TDC \\(0 copies[^\n]*\n  chip 1: [^\n]*\\(1 stale\\)[^\n]*\n  chip 2: [^\n]*\\(1 stale\\)[^\n]*\n  chip 3: [^\n]*\\(1 stale\\)[^\n]*\n.*; 1 invalid \\(fine time 0\\)\n"
    -P ${CMAKE_CURRENT_SOURCE_DIR}/tools/run_tool.cmake -- $<TARGET_FILE:kavot_cli> info ${staleStart})
set_tests_properties(kavot.InfoCountsStaleHeartbeatsOfARealRecording PROPERTIES LABELS data
    SKIP_REGULAR_EXPRESSION "SKIPPED:")
foreach(broken "incomplete|12|File contains incomplete lines!" "noheader|8|Invalid header entry!"
        "cut|16|End of data reached before block is complete!")
    string(REPLACE "|" ";" broken "${broken}")
    list(GET broken 0 file)
    list(GET broken 1 size)
    list(GET broken 2 message)
    kavot_case(InfoReportsStructure_${file} 1 ARGS info ${file}.tpx3 OUT "size: ${size} bytes, 0 chunks"
        ERR "^kavot: ${message}\n$")
endforeach()
kavot_case(InfoJsonCarriesTheError 1 ARGS info --json cut.tpx3
    OUT "\"error\":\"End of data reached before block is complete!\"}")
kavot_case(SummaryWithTriggers 0 ARGS summary sample.kavotphot
    OUT "^photons: [1-9][0-9]*\ntriggers: [0-9]+\ntime: [0-9.]+ s \\.\\. [0-9.]+ s \\([0-9]+ \\.\\. [0-9]+ ticks\\)\nx: ")
kavot_case(SummaryWithoutTriggers 0 ARGS summary notrig.kavotphot OUT "\ntriggers: none recorded\n")
kavot_case(CsvTriggers 0 ARGS csv sample.kavotphot --triggers OUT "^toa_s,toa_ticks\n[0-9]\\.[0-9]+,[0-9]+\n")
kavot_case(CsvTriggersOfAFileWithout 1 ARGS csv --triggers notrig.kavotphot ERR "holds no trigger times")
# A recording's hits as kavot convert sees them by default (their content: python/tests/test_engine.py), as
# vundrel sees them with --vundrel.
kavot_case(ExportOfARecordingWithoutGlobalTimeFollowsEachChip 0 ARGS export twochips.tpx3 twochips.h5)
kavot_case(ExportAsVundrelOfARecordingWithoutGlobalTimeIsRefused 1 ARGS export twochips.tpx3 vundrel.h5 --vundrel
    ABSENT "vundrel.h5*" ERR "^kavot: Supplied file does not contain a global timestamp!\n$")
kavot_case(ExportAsVundrelOnThePixelClock 0 ARGS export twochips.tpx3 pixelclock.h5 --vundrel --globalTime_ignore)
kavot_case(ExportRefusesAChipTheLayoutLacks 1 ARGS export quad.tpx3 single.h5 --layout=single ABSENT "single.h5*"
    ERR "^kavot: chip 1 appears in the recording but not in the layout \"single\"!\n$")
kavot_case(ExportRefusesAnUnknownLayout 1 ARGS export quad.tpx3 hex.h5 --layout hex ABSENT "hex.h5*"
    ERR "^kavot: --layout \"hex\": give single, quad, overlay or a layout file FILE.json!\n$")
kavot_case(ExportLayoutNeedsAValue 1 ARGS export quad.tpx3 quad.h5 --layout
    ERR "^kavot: option --layout needs a value \\(see kavot export --help\\)\n$")
kavot_case(ExportRefusesAPixelClockWithoutVundrel 1 ARGS export twochips.tpx3 clock.h5 --globalTime_ignore
    ERR "^kavot: --globalTime_ignore applies to vundrel's time scale: give --vundrel too!\n$")
kavot_case(ExportRefusesALayoutForVundrel 1 ARGS export quad.tpx3 frame.h5 --vundrel --layout quad
    ERR "^kavot: --layout places chips on a canvas, which --vundrel does not use!\n$")
kavot_case(ExportOfABrokenFileLeavesNothing 1 ARGS export recording.kavotphot broken.h5 ABSENT "broken.h5*"
    ERR "^kavot: Block size is indicated as [0-9]+ but only [0-9]+ bytes are left in the file!\n$")
kavot_case(ImageTiffRefusesBinning 1 ARGS image sample.raw binned.tiff 2 ABSENT "binned.tiff*" ERR "BIN must be 1")
kavot_case(ImagePng 0 ARGS image sample.kavotphot sample.png 8 ABSENT "sample.png.part*")
kavot_case(MissingArgumentsShowTheUsage 1 ARGS info
    ERR "^kavot: missing arguments \\(usage: kavot info FILE.tpx3 \\[--json\\]\\)\n$")
kavot_case(ConvertQuadToHdf5AndImage 0 ARGS convert quad.tpx3 out/quad.h5 --image out/quad.tiff --bin 2
    OUT "into out/quad.h5\ncanvas: 514 x 514 px, layout quad \\(chips in the recording: 0, 1, 2, 3\\)\n.*\ntriggers: 18[0-9][0-9] \\(from [0-9]+ TDC packets.*\nstale heartbeats: 4, ignored"
    ABSENT "out/.quad*")
kavot_case(ConvertOfABrokenRecordingLeavesNothing 1 ARGS convert cut.tpx3 broken.h5 ABSENT "*broken.h5*"
    ERR "^kavot: End of data reached before block is complete!\n$")
kavot_case(ConvertRefusesAChipTheLayoutLacks 1 ARGS convert quad.tpx3 single.kavotphot --layout single
    ABSENT "*single.kavotphot*" ERR "^kavot: chip 1 appears in the recording but not in the layout \"single\"!\n$")
# Every bad value: one line naming the option and what it accepts, status 1, nothing written.
foreach(bad "dtime|100|a time needs its unit: ns, us, ms or s \\(such as 100ns\\)"
        "dtime|2s|give a time from 0 to 1 s with its unit: ns, us, ms or s \\(such as 100ns\\)"
        "dspace|x|give a distance in pixels from 0 to 4096 \\(such as 2\\)"
        "min-hits|0|give a whole number from 1 to 65535" "max-hits|65536|give a whole number from 1 to 65535"
        "min-weight|-1|give a weight of 0 or more \\(such as 1\\)"
        "algorithm|fullchain|give default, fullChain_direct, checkNextOnly or forwardChain_pixelBuildup"
        "layout|hex|give single, quad, overlay or a layout file FILE.json"
        "trigger|tdc3-rising|give tdc1-rising, tdc1-falling, tdc2-rising or tdc2-falling"
        "image|counts.png|give a file name ending in .tiff or .tif" "bin|65|give a whole number from 1 to 64"
        "threads|0|give a whole number from 1 to 256" "compression|zip|give fast, small or none")
    string(REPLACE "|" ";" bad "${bad}")
    list(GET bad 0 option)
    list(GET bad 1 value)
    list(GET bad 2 accepted)
    kavot_case(ConvertRefuses_${option}_${value} 1 ARGS convert quad.tpx3 refused.h5 --${option}=${value}
        ABSENT "*refused.h5*" ERR "^kavot: --${option} \"${value}\": ${accepted}!\n$")
endforeach()
kavot_case(ConvertRefusesAnOutputOfNoKnownKind 1 ARGS convert quad.tpx3 photons.csv
    ERR "^kavot: OUTPUT \"photons.csv\": give a file name ending in .h5 or .kavotphot!\n$")
# On one chip within 13.4 s of the first heartbeat, kavot convert writes vundrel's photon file, byte for byte.
add_test(NAME kavot.ConvertOfOneChipEqualsVundrel COMMAND sh -c
    "'$<TARGET_FILE:kavot_cli>' convert sample.tpx3 converted.kavotphot --layout single > /dev/null && cmp converted.kavotphot sample.kavotphot"
    WORKING_DIRECTORY ${kavot_inputs})
set_tests_properties(kavot.ConvertOfOneChipEqualsVundrel PROPERTIES FIXTURES_REQUIRED kavot_inputs LABELS e2e)

# The photons binned by kavot and the raw image binned by vundrel give the same TIFF, byte for byte.
add_test(NAME kavot.ImageTiffOfPhotonsEqualsTiffOfRawImage COMMAND sh -c
    "'$<TARGET_FILE:kavot_cli>' image sample.kavotphot photons.tiff && '$<TARGET_FILE:kavot_cli>' image sample.raw raw.tiff && cmp photons.tiff raw.tiff"
    WORKING_DIRECTORY ${kavot_inputs})
set_tests_properties(kavot.ImageTiffOfPhotonsEqualsTiffOfRawImage PROPERTIES FIXTURES_REQUIRED kavot_inputs LABELS e2e)

# The batch script on a real one-node Slurm cluster started for the test (root, slurm-wlm and munge); skipped
# with a message where the daemons cannot start or the recordings are absent.
add_test(NAME slurm.ConvertArrayMatchesLocalRuns COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/slurm/run_cluster_test.sh
    $<TARGET_FILE:vundrel> ${PROJECT_SOURCE_DIR} ${KAVOT_TEST_DATA_DIR})
set_tests_properties(slurm.ConvertArrayMatchesLocalRuns PROPERTIES LABELS e2e SKIP_RETURN_CODE 77 TIMEOUT 900
    RUN_SERIAL TRUE)
