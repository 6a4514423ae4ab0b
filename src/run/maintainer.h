// The maintainers' contact address, named in the messages that ask the user
// to report a fault (connected-node limit, unexpected PARDISO error codes).
#pragma once

inline constexpr const char* MAINTAINER_EMAIL = "q5-maintainers@q5-resistivity.org";
