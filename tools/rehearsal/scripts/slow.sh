#!/bin/sh
# A script that outlives a short time limit.
sleep 60
