#!/bin/sh
# Installs the Python package into an environment of its own, over the system's numpy, and uses it where nothing else of
# ours is: its tests, and the README's lines. Usage: python_install_test.sh SOURCE_DIR PYTHON
set -eu
source=$1 python=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
quietly() { "$@" >log 2>&1 || { cat log; echo "failed: $*"; exit 1; }; }

# A copy: pip leaves files in the folder that it builds.
mkdir clone used
for name in pyproject.toml setup.py python $(sed 's/^graft //; s/^include //' "$source/MANIFEST.in"); do
  cp -r "$source/$name" clone
done
cp -r "$source/include" "$source/README.md" "$source/python/test_kesaudio.py" used
quietly "$python" -m venv --system-site-packages environment
quietly env CMAKE_ARGS=-DCMAKE_CXX_FLAGS_RELEASE=-O1 environment/bin/pip install --no-build-isolation --no-deps ./clone
rm -r clone
cd used

quietly env KESAUDIO_INCLUDE="$PWD/include" ../environment/bin/python -B -m pytest -q -p no:cacheprovider test_kesaudio.py
sed -n '/^```python$/,/^```$/p' README.md | sed '/^```/d' >lines.py
printed=$(../environment/bin/python lines.py)
grep -qF "prints \`$printed\`" README.md || { echo "the README's lines print $printed"; exit 1; }
