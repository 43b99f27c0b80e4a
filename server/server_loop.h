// The life of the listening process after start-up.
#pragma once

// Opens the DICOM listener, drops privileges, and then serves associations, one worker process
// each, and keeps house between them. Returns in the listening process only when the listener
// cannot be opened or a signal asks for its end (SIGTERM, SIGINT), and in each worker when its
// association has been served.
void server_loop();
