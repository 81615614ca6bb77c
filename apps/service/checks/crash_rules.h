// Rules for crash reports.
#pragma once

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"

namespace morvik_service {

/// An array of reports with exactly their members; it may be empty. Throws Refusal 400 that names the first member that
/// is missing, of the wrong type or not known.
void checkCrashReports(const Json& payload);

/// Throws Refusal 403 if a report is about another app. The payload was checked.
void checkAppOfCrashReports(const Json& payload, const Keys& keys);

}  // namespace morvik_service
