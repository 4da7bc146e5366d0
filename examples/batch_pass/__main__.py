"""Start the command line."""

import signal
import sys

if __name__ == "__main__":
    # Nothing is under way while the modules load: until the pass takes over, Ctrl-C just ends this.
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    from examples.batch_pass.command import main

    sys.exit(main())
