# bash completion for tovra-cli. A command is one entry in each table below: its options, and
# those of its options that take a value (with the values when they are a fixed set).

declare -gA _tovra_cli_options=(
  [info]="--frames"
  [decode]="--format --no-gapless"
  [play]="--rate --overdrive --mono --8bit --device --repeat --no-emphasis --hifi --timing --help"
  [settings]="--file --save"
  [resample]="--rate --bits --channels --quality"
  [split]=""
  [encode]="--layer --bitrate --mode --model --emphasis --crc --private --copyright --original --wave-header --help"
  [batch]="--mode --out --jobs --format --rate --bits --channels --quality --layer --bitrate --stereo --joint --mono --model --emphasis --crc --private --copyright --original --wave-header --help"
  [tag]="--title --artist --album --year --comment --track --genre --delete --show --help"
)
declare -gA _tovra_cli_values=(
  [decode --format]="raw wav aif au voc"
  [play --rate]="0 1 2 3"
  [play --repeat]="0 1 2"
  [play --device]=""
  [settings --file]="@file"
  [resample --rate]="8000 11025 16000 22050 24000 32000 44100 48000"
  [resample --bits]="8 16"
  [resample --channels]="1 2"
  [resample --quality]=""
  [encode --layer]="1 2 3"
  [encode --bitrate]="32 64 96 128 160 192 224 256 320 384"
  [encode --mode]="stereo joint mono"
  [encode --model]="1 2"
  [encode --emphasis]="none 50/15 ccitt"
  [batch --mode]="encode decode resample"
  [batch --out]="@dir"
  [batch --jobs]=""
  [batch --format]="raw wav aif au voc"
  [batch --rate]="8000 11025 16000 22050 24000 32000 44100 48000"
  [batch --bits]="8 16"
  [batch --channels]="1 2"
  [batch --quality]=""
  [batch --layer]="1 2 3"
  [batch --bitrate]="32 64 96 128 160 192 224 256 320 384"
  [batch --model]="1 2"
  [batch --emphasis]="none 50/15 ccitt"
  [tag --title]=""
  [tag --artist]=""
  [tag --album]=""
  [tag --year]=""
  [tag --comment]=""
  [tag --track]=""
  [tag --genre]=""
)

_tovra_cli() {
  local cur prev command
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "${!_tovra_cli_options[*]} --help --version" -- "$cur")
    return
  fi
  command=${COMP_WORDS[1]}
  if [[ -v "_tovra_cli_values[$command $prev]" ]]; then
    local values=${_tovra_cli_values[$command $prev]}
    if [[ $values == @file ]]; then
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    elif [[ $values == @dir ]]; then
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
    else
      mapfile -t COMPREPLY < <(compgen -W "$values" -- "$cur")
    fi
    return
  fi
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${_tovra_cli_options[$command]}" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -o filenames -F _tovra_cli tovra-cli
