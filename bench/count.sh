# shellcheck shell=dash
# In the VM: the instructions of loading each file, by IniFile and by INIReader.

# count CASE FILE FUNCTION
count() {
    VALGRIND_LIB=/usr/libexec/valgrind LD_BIND_NOW=1 valgrind.bin --tool=callgrind --callgrind-out-file=/dev/null \
        "--toggle-collect=*::$3(*" /vm/costs "$1" "/vm/$2" 1 2>&1 | sed -n 's/.*Collected : //p'
}

for file in small 1-MB 1-MB-line; do
    echo "$file" "$(count IniFile $file loadIniFile)" "$(count INIReader $file loadIniReader)"
done
