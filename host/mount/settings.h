// What a mount can be told.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace host::mount {

using Milliseconds = std::chrono::milliseconds;

struct Settings {
  bool readOnly = false;
  bool allowOther = false;
  bool fsyncRemote = false;   ///< fsync waits for the service instead of the local disk
  bool desktopLinks = false;  ///< Google documents as .desktop files instead of .webloc
  int64_t cacheLimit = int64_t{10} << 30;  ///< bytes of files that can be fetched again
  Milliseconds poll{15'000};
  Milliseconds folderAge{300'000};  ///< after this a listing is renewed when it is looked at
  Milliseconds patience{40'000};    ///< how long a program waits for the service at most

  int uploads = 16;                  ///< files on their way to the service at once
  Milliseconds uploadDelay{250};     ///< from close to upload: a file may be renamed right after
  Milliseconds heldOpenDelay{2000};  ///< the same while a program keeps it open for writing
  Milliseconds retryFirst{1000};     ///< grows twofold with each failure
  Milliseconds retryLast{60'000};
  /// How long the service may still be busy with a request whose answer was lost.
  Milliseconds settle{3000};
  /// How long a folder that was seen is taken to be there. Others may put it into the trash, where
  /// the service takes new files without a word, and the machine may have slept since.
  Milliseconds standingAge{10'000};
};

}  // namespace host::mount
