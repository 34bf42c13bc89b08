#!/bin/sh
# The installed libraries export what is in their namespaces and their plain functions, and nothing else.
set -eu
status=0

complain() {
  echo "$*" >&2
  status=1
}

# exports LIBRARY NAMESPACE PLAIN-FUNCTION...: leaves the demangled names in /tmp/exported.
exports() {
  file=$(find /usr/lib /usr/lib64 -name "$1.so.1" 2>/dev/null | head -n 1)
  [ -n "$file" ] || { echo "$1.so.1 is not installed" >&2; exit 1; }
  library=$1
  namespace=$2
  shift 2
  nm -D --defined-only "$file" | sed 's/^[0-9a-f]* *. //' >/tmp/mangled
  c++filt </tmp/mangled | sed "s/\[abi:cxx11\]//" >/tmp/exported
  grep -E '^(TOLM|TLIB|tolm)' /tmp/mangled | sort >/tmp/plain
  printf '%s\n' "$@" | sort | diff - /tmp/plain >&2 || complain "these are not the plain functions of $library"
  grep -vE "^(non-virtual thunk to |vtable for |typeinfo for |typeinfo name for )?$namespace::" /tmp/exported |
    grep -vxFf /tmp/plain >/tmp/foreign || true
  grep -vE '^__(asan|ubsan|tsan|odr_asan)' /tmp/foreign >&2 && complain "these are nobody else's business in $library"
  # What classes are made of is theirs.
  grep 'Implementation' /tmp/exported >&2 && complain "these are private in $library"
  return 0
}

# expect_classes NAMESPACE CLASS...: each of the public headers can be used and derived from.
expect_classes() {
  namespace=$1
  shift
  for class; do
    for what in vtable typeinfo; do
      grep -qx "$what for $namespace::$class" /tmp/exported || complain "the $what of $class is missing"
    done
  done
}

# expect_functions NAMESPACE FUNCTION...
expect_functions() {
  namespace=$1
  shift
  for function; do
    grep -qF "$namespace::$function(" /tmp/exported || complain "$function is missing"
  done
}

exports libtolmdbud tolm::dataupdate TOLMDBUDGetDirectory TOLMDBUDGetFileLock TOLMDBUDReleaseFileLock
expect_classes tolm::dataupdate Config DatabaseConfig ServiceConfig UpdateError IOUtils UpdateHook BaseStrategy \
  FullStrategy ForceInstallByLink DiffStrategy Fixer Updater VolumeHandler InfoGetter Update Checker
expect_functions tolm::dataupdate InitService SetLockWaitQuestion

# The plain functions stand before the platform's.
exports libtolmoperation tolm::operation \
  TLIBCExecl TLIBPluginAction TOLMFSMkdirP tolmarchive_extract_multiple tolmarchive_open_with_keytype
expect_classes tolm::operation RecordingInfoGetter NotLower ExplainedError
expect_functions tolm::operation PrepareProcess BuildService Start Mounted Unmounting ListVolumes LastOf TimeText \
  OutcomeText AppendToHistory PlanUpdate ExamineInstalled IsOperationRunning DropCachedDescription VerifyRecorded \
  FloorOf LowerFloor RequireVolume AskServerAnew LastAsked CheckSettingsFiles RequireSoundSettings Run::FixByPackage \
  FailureOf LineOf FellBackText WhyNoVolume Road::Road \
  WaitWatch::WaitWatch \
  VerifyAgainstPackage WithBoundedDownloads SetScheduled IsScheduled ScheduledDatabases ExamineOverrides \
  Description::Fetch Description::FromCache Description::OfferOf OverrideProblems::Lines Interrupt::Interrupt \
  Interrupt::Received Run::Run Run::HeldBack Run::Update Run::Fix Run::ForceInstall Run::Finish Run::Results
exit $status
