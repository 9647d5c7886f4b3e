# shellcheck shell=bash
# What the image's scripts share. Sourced, never run.

# shellcheck source=scripts/common.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../../../scripts/common.sh"
# shellcheck source=scripts/debian-mirror.sh
source scripts/debian-mirror.sh
# shellcheck source=scripts/debian-root.sh
source scripts/debian-root.sh

# shellcheck disable=SC2034  # for those who source this
IMAGE="$ROOT/tests/device/image"
# shellcheck disable=SC2034
CACHE="$IMAGE_CACHE"
