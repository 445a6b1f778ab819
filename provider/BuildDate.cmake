# Writes OUTPUT, a header with the date of this build as year/month/day-hour:minute in UTC. The environment variable
# SOURCE_DATE_EPOCH fixes it, so that a build can be repeated byte for byte.
string(TIMESTAMP date "%Y/%m/%d-%H:%M" UTC)
file(WRITE ${OUTPUT} "#define QX_BUILD_DATE \"${date}\"\n")
