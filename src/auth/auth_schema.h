// The schema of the authentication database.
#pragma once

/// The whole script, for one call. The triggers stand in for a foreign key from users to domains.
extern const char* const mailAuthDBSchema;
