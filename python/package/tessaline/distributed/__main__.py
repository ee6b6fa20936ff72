"""python3 -m tessaline.distributed INPUT... -o mesh.ply [--scheduler ADDRESS | --local-workers N] ..."""
import sys

from . import main

sys.exit(main())
