#!/bin/sh
# A script that ends with an exit code of its own.
exit 3
