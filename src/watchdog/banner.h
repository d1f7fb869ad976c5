#pragma once
// The program's one-line banner: name, build version and maker's notice. It
// opens the log and the usage text and doubles as GetAuth's session token.

const char* watchdog_version();   // the build version string alone
const char* watchdog_banner();
