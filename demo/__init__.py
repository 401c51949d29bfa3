"""The wiki of a source tree, built and searched offline with nothing but this project.

Each file worth it is a page, cut into chunks that cite its lines.
"""

VERSION = "0.1.0"
