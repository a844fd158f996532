# Checks what launchd, the helper and the app must agree on, before it is signed and shipped: the names in the launchd
# property list, in the helper's Info.plist and in the requirement that the app makes of the helper. A mistake in them shows
# on a Mac only as a helper that does not start or is not believed.
#
#   cmake -D APP_BUNDLE_ID=com.example.app -D TEAM_ID=7QX4KD19MT
#         -D HELPER_IN_BUNDLE=Contents/Helpers/HalvoHelper
#         -D LAUNCHD_PLIST=FILE -D INFO_PLIST=FILE -D REQUIREMENT=FILE -P lint.cmake
#
# HELPER_IN_BUNDLE is where the executable is put, relative to the app bundle. Needs nothing but CMake, on any system. Prints
# one line for each finding on standard error, all of them, and fails if there is one.
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/PropertyList.cmake)

set(findings 0)

macro(finding text)
    message(NOTICE "lint: ${text}")
    math(EXPR findings "${findings} + 1")
endmacro()

# "\"com.example.app\"", "2", "true", "a dictionary": a value of halvo_read_plist() for a person.
function(describe result value)
    if(value MATCHES "^string (.*)$")
        set(value "\"${CMAKE_MATCH_1}\"")
    elseif(value MATCHES "^integer (.*)$")
        set(value "${CMAKE_MATCH_1}")
    elseif(value STREQUAL "dict")
        set(value "a dictionary")
    elseif(value STREQUAL "array")
        set(value "an array")
    endif()
    set(${result} "${value}" PARENT_SCOPE)
endfunction()

# The value that the property list `name` must have at `place`, and why, as the end of a sentence.
macro(expect name place value why)
    list(APPEND ${name}_EXPECTED "${place}")
    set(expected_${name}${place} "${value}")
    set(why_${name}${place} "${why}")
endmacro()

# Holds the property list `name`, read from `file`, against what is expected. The further arguments are places at which it may
# have any string.
function(check_plist name file)
    get_filename_component(title "${file}" NAME)
    if(${name}_PROBLEM)
        finding("${file} cannot be read: ${${name}_PROBLEM}; mend the template it is made from")
    else()
        foreach(place IN LISTS ${name}_EXPECTED)
            string(SUBSTRING "${place}" 1 -1 key)
            set(why "${why_${name}${place}}")
            describe(expected "${expected_${name}${place}}")
            if(NOT DEFINED ${name}${place})
                finding("${title}: ${key} is missing; make it ${expected}, ${why}")
            elseif(NOT ${name}${place} STREQUAL expected_${name}${place})
                describe(actual "${${name}${place}}")
                finding("${title}: ${key} is ${actual}; make it ${expected}, ${why}")
            endif()
        endforeach()
        foreach(place IN LISTS ${name}_PATHS)
            if(NOT place IN_LIST ${name}_EXPECTED AND
               NOT (place IN_LIST ARGN AND ${name}${place} MATCHES "^string "))
                string(SUBSTRING "${place}" 1 -1 key)
                finding("${title}: ${key} is not known here; remove it, or teach packaging/macos/lint.cmake about it")
            endif()
        endforeach()
    endif()
    set(findings ${findings} PARENT_SCOPE)
endfunction()

foreach(variable IN ITEMS APP_BUNDLE_ID TEAM_ID HELPER_IN_BUNDLE LAUNCHD_PLIST INFO_PLIST REQUIREMENT)
    if(NOT DEFINED ${variable})
        message(FATAL_ERROR "lint: ${variable} is missing; lint.cmake says how it is called")
    endif()
endforeach()

# The two variables. The rules are those of HalvoHelperCore/HelperIdentity.hpp.
string(LENGTH "${APP_BUNDLE_ID}" length)
if(NOT APP_BUNDLE_ID MATCHES "^[A-Za-z0-9.-]+$" OR APP_BUNDLE_ID MATCHES "^\\." OR
   APP_BUNDLE_ID MATCHES "\\.\\." OR length GREATER 200)
    finding("HALVO_APP_BUNDLE_ID is \"${APP_BUNDLE_ID}\"; make it the app's bundle identifier: at most 200 ASCII letters, \
digits, \".\" and \"-\", no \".\" in front and no two in a row")
endif()
string(LENGTH "${TEAM_ID}" length)
if(NOT TEAM_ID MATCHES "^[A-Z0-9]+$" OR NOT length EQUAL 10)
    finding("HALVO_TEAM_ID is \"${TEAM_ID}\"; make it the team identifier of the developer account: ten ASCII capital \
letters and digits")
endif()

# The layout.
if(NOT HELPER_IN_BUNDLE MATCHES "^Contents/([A-Za-z0-9-]+/)+[A-Za-z0-9-]+$")
    finding("the executable is put at \"${HELPER_IN_BUNDLE}\"; put it in a folder inside the bundle's Contents")
elseif(HELPER_IN_BUNDLE MATCHES "^Contents/MacOS/")
    finding("the executable is put at \"${HELPER_IN_BUNDLE}\"; put it elsewhere: in Contents/MacOS the system would take \
it for the app's own program")
endif()

# All the rest is compared with these.
if(findings GREATER 0)
    message(FATAL_ERROR "lint: ${findings} found; what follows from these is not checked yet")
endif()
set(helper "${APP_BUNDLE_ID}.helper")

# The launchd property list.
halvo_read_plist(job "${LAUNCHD_PLIST}")
set(byName "the name of the app's helper")
expect(job /Label "string ${helper}" "${byName}")
expect(job /BundleProgram "string ${HELPER_IN_BUNDLE}" "where the executable is put")
expect(job /MachServices dict "with the one name that the helper listens on")
expect(job /MachServices/${helper} true "the name that the helper listens on")
expect(job /AssociatedBundleIdentifiers array "with the app's bundle identifier")
expect(job /AssociatedBundleIdentifiers/0 "string ${APP_BUNDLE_ID}" "the app's bundle identifier")
expect(job /KeepAlive dict "or launchd does not start a helper again that holds a commitment")
expect(job /KeepAlive/SuccessfulExit false
    "so that launchd starts a helper again that holds a commitment, and lets an idle one rest")
expect(job /ThrottleInterval "integer 2" "the helper's own pace")
expect(job /EnableTransactions false "so that a stop is SIGTERM, never at once SIGKILL")
expect(job /ExitTimeOut "integer 20" "time to save the commitment and to take the lock off")
expect(job /SpawnConstraint dict "or launchd starts whatever lies in the helper's place")
expect(job /SpawnConstraint/team-identifier "string ${TEAM_ID}" "the team that signs the helper")
expect(job /SpawnConstraint/signing-identifier "string ${helper}" "the identifier that the helper is signed with")
check_plist(job "${LAUNCHD_PLIST}")
get_filename_component(name "${LAUNCHD_PLIST}" NAME)
if(NOT name STREQUAL "${helper}.plist")
    finding("the launchd property list is named ${name}; name it ${helper}.plist, by which SMAppService finds it")
endif()

# The Info.plist inside the helper's executable.
halvo_read_plist(info "${INFO_PLIST}")
expect(info /CFBundleIdentifier "string ${helper}" "${byName}, which it is signed with")
expect(info /HalvoAppBundleID "string ${APP_BUNDLE_ID}" "the app that the helper serves")
expect(info /HalvoTeamID "string ${TEAM_ID}" "the team whose app the helper serves")
check_plist(info "${INFO_PLIST}" /CFBundleDevelopmentRegion /CFBundleExecutable /CFBundleInfoDictionaryVersion /CFBundleName
    /CFBundlePackageType /CFBundleShortVersionString /CFBundleVersion /LSMinimumSystemVersion)

# The requirement.
get_filename_component(name "${REQUIREMENT}" NAME)
if(NOT name STREQUAL "${helper}.requirement")
    finding("the requirement's file is named ${name}; name it ${helper}.requirement")
endif()
if(NOT EXISTS "${REQUIREMENT}" OR IS_DIRECTORY "${REQUIREMENT}")
    finding("${REQUIREMENT} cannot be read: there is no such file; configure the build anew")
else()
    file(READ "${REQUIREMENT}" text)
    if(NOT text MATCHES
       "^anchor apple generic and identifier \"([^\"]*)\" and certificate leaf\\[subject\\.OU\\] = \"([^\"]*)\"$")
        finding("${name}: it is no requirement of the one form; make it anchor apple generic and identifier \"${helper}\" \
and certificate leaf[subject.OU] = \"${TEAM_ID}\", with nothing before and after")
    else()
        set(identifier "${CMAKE_MATCH_1}")
        set(unit "${CMAKE_MATCH_2}")
        if(NOT identifier STREQUAL helper)
            finding("${name}: the identifier is \"${identifier}\"; make it \"${helper}\", which the helper is signed with")
        endif()
        if(NOT unit STREQUAL TEAM_ID)
            finding("${name}: the organizational unit is \"${unit}\"; make it \"${TEAM_ID}\", the team that signs the helper")
        endif()
    endif()
endif()

if(findings GREATER 0)
    message(FATAL_ERROR "lint: ${findings} found")
endif()
