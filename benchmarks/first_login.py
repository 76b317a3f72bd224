"""Logs in at the URL that is its argument, and prints the processor time of that and the import, in seconds.

Run in a process of its own, with SSL_CERT_FILE and perhaps SSL_CERT_DIR set.
"""

import sys
import time


def main() -> None:
    url = sys.argv[1]
    begin = time.process_time()
    from tessaline.auth import AuthManager

    AuthManager("11" * 32, url).authenticate()
    print(time.process_time() - begin)


if __name__ == "__main__":
    main()
